#include "inference/LlmLanguageModelFramework.h"

#include "TinyModelFiles.h"
#include "inference/ModelLocator.h"
#include "llm/gguf/GgufFile.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/model/Model.h"
#include "llm/model/ModelError.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/runtime/GenerationSession.h"
#include "llm/testing/TestModelMaker.h"
#include "llm/tokenizer/Tokenizer.h"
#include "support/RunTask.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <numeric>
#include <random>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace parlune {
namespace {

namespace fs = std::filesystem;

// Waits in short sleeps rather than in one blocking wait, so that this thread keeps taking the
// lease-break signal: ThreadSanitizer delivers signals only at calls it intercepts, and the wait
// inside std::system is not one of them.
int runShell(const std::string& command) {
    const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
    pid_t child = 0;
    if (::posix_spawn(&child, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) {
        return -1;
    }
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return status;
}

// How another program changes a model file that is in use, each as a separate process would.
// `truncateUnleased` is a truncation by a program that had the file open for writing before we
// mapped it, so no lease was granted and the pages vanish without notice (SIGBUS in the kernels).
enum class Change { truncate, truncateUnleased, overwriteInPlace, replaceByRename, remove };

const char* nameOf(Change change) {
    switch (change) {
    case Change::truncate:
        return "truncate";
    case Change::truncateUnleased:
        return "truncate without notice";
    case Change::overwriteInPlace:
        return "overwrite in place";
    case Change::replaceByRename:
        return "replace by rename";
    case Change::remove:
        return "delete";
    }
    return "";
}

// Rename and delete leave the old inode, and so the bytes in use, untouched.
bool keepsTheOldBytes(Change change) {
    return change == Change::replaceByRename || change == Change::remove;
}

// Leaves `path` holding the model in `replacement` (or nothing, for a delete).
void apply(Change change, const fs::path& path, const fs::path& replacement) {
    const std::string target = "'" + path.string() + "'";
    const std::string source = "'" + replacement.string() + "'";
    std::string command;
    switch (change) {
    case Change::truncate:
        // Cut to nothing first (O_TRUNC), then written anew by a second opening.
        command = ": > " + target + " && cat " + source + " >> " + target;
        break;
    case Change::truncateUnleased:
        command = "cat " + source + " >> " + target; // after the holder's ftruncate
        break;
    case Change::overwriteInPlace:
        command = "cp " + source + " " + target;
        break;
    case Change::replaceByRename:
        command = "cp " + source + " " + target + ".part && mv " + target + ".part " + target;
        break;
    case Change::remove:
        command = "rm " + target;
        break;
    }
    // A writer held back by a lease would wait 45 s if the lease were never released.
    ASSERT_EQ(runShell("timeout 30 sh -c \"" + command + "\""), 0) << command;
}

class ModelFileChangeTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(folder.isValid());
        dir = folder.path().toStdString();
        test::writeTinyModel(dir / "first.gguf");
        test::writeTinyModel(dir / "second.gguf", 2048, {}, 2);
    }

    fs::path modelPath() const { return dir / "model.gguf"; }
    void resetModel() const {
        fs::remove(modelPath());
        fs::copy_file(dir / "first.gguf", modelPath());
    }

    // The answer a model file gives, from a framework of its own.
    QString answerOf(const fs::path& file, const QString& prompt, std::int64_t count) const {
        LlmInference::Options own = test::optionsFor(file);
        own.forcedResponseTokens = count;
        LlmLanguageModelFramework framework(std::move(own));
        return test::runTask(
            framework.openSession(QStringLiteral("Be brief."))->respond(prompt, test::greedy(count), {}));
    }

    QTemporaryDir folder;
    fs::path dir;
};

TEST_F(ModelFileChangeTest, BetweenTokensAChangedFileEndsTheSessionOnItsOldBytesOnly) {
    for (const Change change :
         {Change::truncate, Change::overwriteInPlace, Change::replaceByRename, Change::remove}) {
        SCOPED_TRACE(nameOf(change));
        resetModel();
        const auto reference = llm::Model::load(dir / "first.gguf");
        const auto model = llm::Model::load(modelPath());
        const std::shared_ptr<const llm::Tokenizer> tokenizer = llm::Tokenizer::fromGguf(model->file());
        llm::ThreadPool pool(4); // the change lands while every worker has read the weights
        llm::GenerationSession session(model, tokenizer, pool);
        llm::GenerationSession expected(reference, tokenizer, pool);
        std::vector<std::int32_t> prompt(24);
        std::iota(prompt.begin(), prompt.end(), 3);
        session.prefill(prompt);

        apply(change, modelPath(), dir / "second.gguf");
        prompt.push_back(7);
        if (keepsTheOldBytes(change)) {
            session.prefill(prompt);
            expected.prefill(prompt);
            EXPECT_EQ(std::vector<float>(session.logits().begin(), session.logits().end()),
                      std::vector<float>(expected.logits().begin(), expected.logits().end()));
        } else {
            EXPECT_THROW(session.prefill(prompt), llm::ModelFileChangedError);
        }
    }
}

TEST_F(ModelFileChangeTest, ARequestRacingAChangeFailsClearlyOrIsUnaffectedAndTheNextUsesTheNewFile) {
    if (!LlmLanguageModelFramework::processorIsEligible()) {
        GTEST_SKIP() << "this processor lacks AVX2/FMA";
    }
    const QString prompt = QStringLiteral("Tell me about the sea.");
    constexpr std::int64_t length = 1500;
    const QString before = answerOf(dir / "first.gguf", prompt, length);
    const QString after = answerOf(dir / "second.gguf", prompt, length);
    ASSERT_NE(before, after);

    std::mt19937 random(17);
    for (const Change change : {Change::truncate, Change::truncateUnleased, Change::overwriteInPlace,
                                Change::replaceByRename, Change::remove}) {
        for (int round = 0; round < 2; ++round) {
            SCOPED_TRACE(std::string(nameOf(change)) + ", round " + std::to_string(round));
            resetModel();
            const int holder = change == Change::truncateUnleased ? ::open(modelPath().c_str(), O_RDWR) : -1;
            LlmInference::Options racing = test::optionsFor(modelPath(), 4);
            racing.forcedResponseTokens = length;
            LlmLanguageModelFramework framework(std::move(racing));
            // The change lands at some point of the request: before, during or after its tokens.
            const auto delay = std::chrono::microseconds(random() % 40'000);
            std::thread changer([&] {
                std::this_thread::sleep_for(delay);
                if (holder >= 0) {
                    ASSERT_EQ(::ftruncate(holder, 0), 0);
                }
                apply(change, modelPath(), dir / "second.gguf");
            });
            QString answer;
            QString failure;
            try {
                answer = test::runTask(framework.openSession(QStringLiteral("Be brief."))
                                           ->respond(prompt, test::greedy(length), {}));
            } catch (const LanguageModelGenerationError& error) {
                failure = error.detail();
            }
            changer.join();
            if (holder >= 0) {
                ::close(holder);
            }
            if (failure.isEmpty()) {
                // Never an answer made of other bytes.
                EXPECT_TRUE(answer == before || (answer == after && !keepsTheOldBytes(change)));
            } else if (change == Change::remove) {
                EXPECT_TRUE(failure.endsWith(QStringLiteral("model.gguf cannot be used: no such file.")))
                    << failure.toStdString();
            } else {
                // A change that empties the file before writing it anew may be caught half done by
                // the request's own load, which then names the file as unusable.
                const bool caughtHalfDone = change != Change::replaceByRename &&
                                            failure.contains(QStringLiteral("model.gguf cannot be used: "));
                EXPECT_TRUE(failure.startsWith(QStringLiteral("The model file changed while in use: ")) ||
                            caughtHalfDone)
                    << failure.toStdString();
            }
            if (change == Change::remove) {
                fs::copy_file(dir / "second.gguf", modelPath());
            }
            // The next request loads what the path holds now.
            EXPECT_EQ(test::runTask(framework.openSession(QStringLiteral("Be brief."))
                                        ->respond(prompt, test::greedy(length), {})),
                      after);
        }
    }
}

} // namespace
} // namespace parlune
