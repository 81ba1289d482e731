// Many rewrites across every capture path with one fault drawn at random for each, from a fixed
// seed: no rewrite may lose the user's clipboard or put text into a field it did not capture.

#include "SelectionTestFixture.h"

#include "core/async/Sleep.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>

namespace parlune::test {
namespace {

enum class Fault {
    none,
    ignoresCopy,
    ignoresPaste,
    refusesWrites,
    dropsWrites,
    keyboardUnavailable,
    otherWriter,
    focusOtherField,
    focusOtherApplication,
    caretMoved,
    permissionWithdrawn,
    cancelled,
};
constexpr int faultCount = 12;

// When an asynchronous fault strikes. Moments after command-V is sent and before the target acts
// are left out on purpose: there no program can call the key back (see the report of the replacer
// tests), and a copy window shared with another writer cannot tell whose string arrived.
enum class Phase { beforeValidate, beforeReplace, atCopyKey, afterPasteDelivered };
constexpr int phaseCount = 4;

const char* faultName(Fault fault) {
    static constexpr std::array<const char*, faultCount> names{
        "none",          "ignoresCopy",         "ignoresPaste",
        "refusesWrites", "dropsWrites",         "keyboardUnavailable",
        "otherWriter",   "focusOtherField",     "focusOtherApplication",
        "caretMoved",    "permissionWithdrawn", "cancelled"};
    return names[static_cast<std::size_t>(fault)];
}

const std::array<QString, 14> tokens{
    QStringLiteral("alpha"), QStringLiteral("beta"),     QStringLiteral("Grüße"), QStringLiteral("naïve"),
    QStringLiteral("🙂"),  QStringLiteral("👍🏽"), QStringLiteral("𝒜𝒷𝒸"),   QStringLiteral("日本語"),
    QStringLiteral("—"),     QStringLiteral("ok"),       QStringLiteral("🇫🇷"),    QStringLiteral("x"),
    QStringLiteral("delta"), QStringLiteral("e\u0301")};

class Soak {
public:
    explicit Soak(std::uint32_t seed) : random_(seed) {
        static constexpr std::array<const char*, 5> identifiers{"org.example.Direct", "org.example.RangeOnly",
                                                                "org.example.Opaque", "org.example.NoAccess",
                                                                "org.example.Bystander"};
        for (int index = 0; index < 5; ++index) {
            const ProcessId pid = 5000 + index;
            pids_[static_cast<std::size_t>(index)] = pid;
            desktop_.launch(pid, QString::fromLatin1(identifiers[static_cast<std::size_t>(index)]));
            const int window = desktop_.openWindow(pid, QStringLiteral("Window"));
            fields_[static_cast<std::size_t>(index)] = {desktop_.addField(window, {}),
                                                        desktop_.addField(window, {})};
        }
        desktop_.keysFollowDesktopFocus = true; // as X11 input does
        TextSelectionReplacer::Timing timing;
        timing.copyTimeout = 0.12;
        timing.pasteConfirmationTimeout = 0.2;
        timing.copyPollInterval = 0.004;
        timing.pastePollInterval = 0.003;
        timing.steadyPasteInterval = 0.02;
        timing.fetchGrace = 0.008;
        replacer_ = std::make_unique<TextSelectionReplacer>(
            desktop_.accessibility(), desktop_.workspace(), clipboard_, desktop_.keyboard(),
            AppCompatibilityRegistry({QStringLiteral("org.example.Direct")}), SystemClock::shared(), timing);
    }

    void run(int iterations) {
        for (int iteration = 0; iteration < iterations; ++iteration) {
            runOne();
        }
    }

    int lostClipboards = 0;
    int wrongFieldInsertions = 0;
    int wrongTextInsertions = 0;
    int falseConfirmations = 0;
    int wrongCaptures = 0;
    int blindConfirmations = 0;
    int repeatPresses = 0;
    int repeatCaptures = 0;
    std::map<std::string, int> outcomes;
    std::map<std::string, int> faultsDrawn;

private:
    std::uint32_t draw(std::uint32_t bound) { return random_() % bound; }

    QString randomText(int minTokens, int maxTokens, std::vector<QString>* parts = nullptr) {
        const int count =
            minTokens + static_cast<int>(draw(static_cast<std::uint32_t>(maxTokens - minTokens + 1)));
        QString text;
        for (int index = 0; index < count; ++index) {
            const QString& token = tokens[draw(tokens.size())];
            if (parts) {
                parts->push_back(token);
            }
            text += (index ? QStringLiteral(" ") : QString()) + token;
        }
        return text;
    }

    std::vector<PasteboardItem> randomClipboard() {
        std::vector<PasteboardItem> items(1 + draw(3));
        for (auto& item : items) {
            const int types = 1 + static_cast<int>(draw(3));
            for (int type = 0; type < types; ++type) {
                QByteArray data;
                for (std::uint32_t byte = 0, size = draw(24); byte < size; ++byte) {
                    data.append(static_cast<char>(draw(256)));
                }
                item.values.emplace_back(QStringLiteral("application/x-soak-%1").arg(type), data);
            }
            if (draw(2)) {
                item.values.emplace_back(SimulatedDesktop::plainTextType(), randomText(1, 3).toUtf8());
            }
        }
        return items;
    }

    void resetDesktop() {
        desktop_.onCommandKey = nullptr;
        desktop_.onProgramWrite = nullptr;
        desktop_.beforeNextAccessibilityQuery = nullptr;
        desktop_.trusted = true;
        desktop_.keyboardAvailable = true;
        desktop_.staleAccessibilityFocus = 0;
        desktop_.reportsFetches = draw(2) == 0;
        desktop_.keyDelayMs = 1 + static_cast<int>(draw(3));
        for (std::size_t index = 0; index < pids_.size(); ++index) {
            SimulatedApplication* app = desktop_.application(pids_[index]);
            app->ignoresCopy = app->ignoresPaste = false;
            app->refusesAccessibilityWrites = app->dropsAccessibilityWrites = false;
            app->pasteLeavesSelection = draw(2) == 0;
            app->exposesFocusedElement = index != 3;
            for (int fieldId : fields_[index]) {
                SimulatedField* field = desktop_.field(fieldId);
                field->text = randomText(3, 6);
                field->selection = {0, std::min<qsizetype>(2, field->text.size())};
                field->selectedTextReadable = index == 0;
                field->stringForRangeReadable = index <= 1;
            }
        }
        desktop_.clearLogs();
        desktop_.writePasteboardAsOther(randomClipboard());
    }

    void runOne() {
        resetDesktop();
        const std::size_t appIndex = draw(4);
        const ProcessId pid = pids_[appIndex];
        const int fieldId = fields_[appIndex][draw(2)];
        const int siblingId = fields_[appIndex][0] == fieldId ? fields_[appIndex][1] : fields_[appIndex][0];
        const int bystanderId = fields_[4][0];

        // A text of whole tokens, a selection of whole tokens in it.
        std::vector<QString> parts;
        SimulatedField* target = desktop_.field(fieldId);
        target->text = randomText(2, 6, &parts);
        const int first = static_cast<int>(draw(static_cast<std::uint32_t>(parts.size())));
        const int last = first + static_cast<int>(draw(static_cast<std::uint32_t>(parts.size() - first)));
        qsizetype location = 0;
        for (int index = 0; index < first; ++index) {
            location += parts[static_cast<std::size_t>(index)].size() + 1;
        }
        qsizetype length = 0;
        for (int index = first; index <= last; ++index) {
            length += parts[static_cast<std::size_t>(index)].size() + (index > first ? 1 : 0);
        }
        desktop_.focus(fieldId);
        desktop_.select(fieldId, {location, length});
        const QString selected = target->text.mid(location, length);
        QString replacement = randomText(1, 4);
        if (replacement == selected) {
            replacement += QStringLiteral("!");
        }
        const QString expectedAfter = QString(target->text).replace(location, length, replacement);

        std::map<int, QString> untouched;
        for (const auto& pair : fields_) {
            for (int id : pair) {
                if (id != fieldId) {
                    untouched[id] = desktop_.field(id)->text;
                }
            }
        }

        Fault fault = draw(5) < 2 ? Fault::none : static_cast<Fault>(1 + draw(faultCount - 1));
        const Phase phase = static_cast<Phase>(draw(phaseCount));
        std::stop_source stop;
        const std::vector<PasteboardItem> newer{pasteboardItem({{QStringLiteral("text/x-newer"), "n"}})};
        SimulatedApplication* app = desktop_.application(pid);

        auto strike = [&, this] {
            switch (fault) {
            case Fault::otherWriter:
                desktop_.writePasteboardAsOther(newer);
                break;
            case Fault::focusOtherField:
                desktop_.focus(siblingId);
                break;
            case Fault::focusOtherApplication:
                desktop_.focus(bystanderId);
                break;
            case Fault::caretMoved:
                desktop_.select(fieldId, {location + 1, 0});
                break;
            case Fault::permissionWithdrawn:
                desktop_.trusted = false;
                break;
            case Fault::cancelled:
                stop.request_stop();
                break;
            default:
                break;
            }
        };
        ++faultsDrawn[faultName(fault)];
        switch (fault) {
        case Fault::ignoresCopy:
            app->ignoresCopy = true;
            break;
        case Fault::ignoresPaste:
            app->ignoresPaste = true;
            break;
        case Fault::refusesWrites:
            app->refusesAccessibilityWrites = true;
            break;
        case Fault::dropsWrites:
            app->dropsAccessibilityWrites = true;
            break;
        case Fault::keyboardUnavailable:
            desktop_.keyboardAvailable = false;
            break;
        default:
            break;
        }
        // Not drawn, because no program could notice them (see the report): another writer or an edit
        // while the target's copy is on its way, a cancellation after a key was sent, and, for an
        // application without any accessibility element, a move to another of its own fields.
        const bool copyWindowFault =
            fault == Fault::otherWriter || fault == Fault::caretMoved || fault == Fault::cancelled;
        if (appIndex == 3 && fault == Fault::focusOtherField) {
            fault = Fault::focusOtherApplication;
        }
        if (phase == Phase::atCopyKey && !copyWindowFault) {
            desktop_.onCommandKey = [&](const SentKey& key) {
                if (key.keyCode == KeyboardEvents::keyCodeC) {
                    desktop_.onCommandKey = nullptr;
                    strike();
                }
            };
        } else if (phase == Phase::afterPasteDelivered) {
            desktop_.onCommandKey = [&, this](const SentKey& key) {
                if (key.keyCode == KeyboardEvents::keyCodeV) {
                    desktop_.onCommandKey = nullptr;
                    desktop_.after(desktop_.keyDelayMs + 2, strike);
                }
            };
        }

        std::optional<CapturedSelection> captured;
        auto rewrite = [&, this]() -> QCoro::Task<void> {
            const std::stop_token token = stop.get_token();
            captured.emplace(co_await replacer_->capture(token));
            co_await sleepFor(std::chrono::milliseconds(1), token); // the model's turn
            // Another writer while a repeat press is copying would be the copy-window case above.
            while (fault == Fault::otherWriter && replacer_->isPasteboardBusy()) {
                co_await sleepFor(std::chrono::milliseconds(1), token);
            }
            if (phase == Phase::beforeValidate) {
                strike();
            }
            co_await replacer_->validate(*captured, token);
            while (fault == Fault::otherWriter && replacer_->isPasteboardBusy()) {
                co_await sleepFor(std::chrono::milliseconds(1), token);
            }
            if (phase == Phase::beforeReplace) {
                strike();
            }
            co_await replacer_->replace(replacement, *captured, token);
        };

        // Now and then the shortcut is pressed twice: a second capture competes for the pasteboard.
        bool repeatDone = true;
        auto repeatPress = [&, this]() -> QCoro::Task<void> {
            try {
                co_await replacer_->capture({});
                ++repeatCaptures;
            } catch (const std::exception&) {
            }
            repeatDone = true;
        };
        std::optional<QCoro::Task<void>> repeat;
        const bool pressedTwice = draw(5) == 0;

        std::string outcome = "success";
        try {
            QCoro::Task<void> main = rewrite();
            if (pressedTwice) {
                ++repeatPresses;
                repeatDone = false;
                repeat.emplace(repeatPress());
            }
            runTask(std::move(main));
        } catch (const TextReplacementError& error) {
            outcome = error.what();
        } catch (const CancellationError&) {
            outcome = "cancelled";
        }
        pumpUntil([&] { return repeatDone; });
        pumpFor(desktop_.keyDelayMs + 3); // let keys still on their way arrive
        ++outcomes[outcome];

        const int before =
            lostClipboards + wrongFieldInsertions + wrongTextInsertions + falseConfirmations + wrongCaptures;
        if (captured && captured->text() != selected) {
            ++wrongCaptures;
        }
        // The clipboard must be what the last writer other than us and the targets left there.
        std::vector<PasteboardItem> expected;
        for (const auto& write : desktop_.pasteboardWrites()) {
            if (write.writer == PasteboardWriter::other) {
                expected = write.items;
            }
        }
        if (desktop_.pasteboardItems() != expected) {
            ++lostClipboards;
        }
        for (const auto& insertion : desktop_.insertions()) {
            if (insertion.field != fieldId) {
                ++wrongFieldInsertions;
            } else if (insertion.text != replacement) {
                ++wrongTextInsertions;
            }
        }
        for (const auto& [id, text] : untouched) {
            if (desktop_.field(id)->text != text) {
                ++wrongFieldInsertions;
            }
        }
        if (outcome == "success" && desktop_.field(fieldId)->text != expectedAfter) {
            // Without a range, an element or fetch reports, a paste that changed nothing looks the
            // same as one that worked: the accepted price of the quiet-moment rule.
            if (appIndex == 3 && !desktop_.reportsFetches && fault == Fault::ignoresPaste) {
                ++blindConfirmations;
            } else {
                ++falseConfirmations;
            }
        }
        if (before != lostClipboards + wrongFieldInsertions + wrongTextInsertions + falseConfirmations +
                          wrongCaptures) {
            std::printf("anomaly: app %zu fault %s phase %d outcome %s fetch %d leaves %d | %d %d %d %d %d "
                        "sel=%lld,%lld "
                        "text=%s repl=%s now=%s\n",
                        appIndex, faultName(fault), static_cast<int>(phase), outcome.c_str(),
                        desktop_.reportsFetches, app->pasteLeavesSelection, lostClipboards,
                        wrongFieldInsertions, wrongTextInsertions, falseConfirmations, wrongCaptures,
                        (long long)location, (long long)length, qPrintable(selected), qPrintable(replacement),
                        qPrintable(desktop_.field(fieldId)->text));
        }
    }

    std::mt19937 random_;
    SimulatedDesktop desktop_;
    ClipboardManager clipboard_{desktop_.pasteboard()};
    std::unique_ptr<TextSelectionReplacer> replacer_;
    std::array<ProcessId, 5> pids_{};
    std::array<std::array<int, 2>, 5> fields_{};
};

TEST(SelectionSoakTest, RandomFaultsNeverLoseTheClipboardNorHitAnotherField) {
    int iterations = 1000;
    if (const char* configured = std::getenv("PARLUNE_SOAK_ITERATIONS")) {
        iterations = std::max(1, std::atoi(configured));
    }
    std::uint32_t seed = 20261121u; // fixed, so a failure reproduces; PARLUNE_SOAK_SEED explores others
    if (const char* configured = std::getenv("PARLUNE_SOAK_SEED")) {
        seed = static_cast<std::uint32_t>(std::strtoul(configured, nullptr, 10));
    }
    Soak soak(seed);
    QElapsedTimer timer;
    timer.start();
    soak.run(iterations);

    std::printf("soak (seed %u): %d rewrites in %.1f s, %d with a second press (%d of those captured)\n",
                seed, iterations, secondsOf(timer), soak.repeatPresses, soak.repeatCaptures);
    for (const auto& [name, count] : soak.faultsDrawn) {
        std::printf("  fault %-22s %d\n", name.c_str(), count);
    }
    for (const auto& [name, count] : soak.outcomes) {
        std::printf("  outcome %4d  %s\n", count, name.c_str());
    }
    std::printf(
        "  lost clipboards %d, wrong-field insertions %d, wrong-text insertions %d, false confirmations %d, "
        "wrong captures %d; unverifiable pastes reported done %d\n",
        soak.lostClipboards, soak.wrongFieldInsertions, soak.wrongTextInsertions, soak.falseConfirmations,
        soak.wrongCaptures, soak.blindConfirmations);
    EXPECT_EQ(soak.lostClipboards, 0);
    EXPECT_EQ(soak.wrongFieldInsertions, 0);
    EXPECT_EQ(soak.wrongTextInsertions, 0);
    EXPECT_EQ(soak.falseConfirmations, 0);
    EXPECT_EQ(soak.wrongCaptures, 0);
    EXPECT_GT(soak.outcomes["success"], iterations / 3);
}

} // namespace
} // namespace parlune::test
