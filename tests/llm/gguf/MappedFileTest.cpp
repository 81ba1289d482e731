#include "llm/gguf/MappedFile.h"
#include "llm/gguf/GgufError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace parlune::llm {
namespace {

namespace fs = std::filesystem;

class MappedFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/parlune-mapped-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override { fs::remove_all(dir); }

    // A file of `pages` pages, each page filled with its number plus one (never zero).
    fs::path writeFile(const std::string& name, std::size_t pages) const {
        const fs::path path = dir / name;
        std::ofstream out(path, std::ios::binary);
        for (std::size_t page = 0; page < pages; ++page) {
            const std::string bytes(pageSize, static_cast<char>(page % 250 + 1));
            out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        }
        return path;
    }

    // Runs a shell command as another process would, as a user replacing a model does.
    static int shell(const std::string& command) { return std::system(command.c_str()); }

    fs::path dir;
    const std::size_t pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
};

std::size_t nonZeroBytes(const MappedFile& file) {
    const auto bytes = file.bytes();
    return static_cast<std::size_t>(
        std::count_if(bytes.begin(), bytes.end(), [](std::byte b) { return b != std::byte{0}; }));
}

std::string reasonFor(const fs::path& path) {
    try {
        MappedFile file(path);
    } catch (const GgufError& error) {
        return error.what();
    }
    return "opened";
}

TEST_F(MappedFileTest, RefusesWhatIsNotARegularFileWithoutWaitingOnIt) {
    // Opening a FIFO for reading would wait for a writer forever.
    ASSERT_EQ(::mkfifo((dir / "fifo.gguf").c_str(), 0600), 0);
    EXPECT_EQ(reasonFor(dir / "fifo.gguf"),
              (dir / "fifo.gguf").string() + ": is not a regular file (a FIFO)");
    fs::create_directory(dir / "folder.gguf");
    EXPECT_EQ(reasonFor(dir / "folder.gguf"),
              (dir / "folder.gguf").string() + ": is not a regular file (a directory)");
    EXPECT_EQ(reasonFor("/dev/zero"), "/dev/zero: is not a regular file (a device)");

    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = (dir / "socket.gguf").string();
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(reasonFor(socketPath), socketPath + ": is not a regular file (a socket)");
    ::close(listener);

    fs::create_symlink(dir / "loop-a", dir / "loop-b");
    fs::create_symlink(dir / "loop-b", dir / "loop-a");
    EXPECT_NE(reasonFor(dir / "loop-a").find("cannot open the file: Too many levels of symbolic links"),
              std::string::npos);
}

TEST_F(MappedFileTest, ALeasedFileLetsAWriterGoAtOnceAndReadsAsZerosAfter) {
    const fs::path path = writeFile("model.gguf", 64);
    const fs::path other = writeFile("other.gguf", 32);
    MappedFile file(path);
    if (!file.leased()) {
        GTEST_SKIP() << "this file system grants no read lease";
    }
    EXPECT_FALSE(file.changed());
    EXPECT_EQ(nonZeroBytes(file), 64 * pageSize);

    // Readers keep going through the change; none of them may fault.
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&] {
            while (!done.load()) {
                (void)nonZeroBytes(file);
            }
        });
    }
    // Held back until the lease is released; without the release this takes the system's
    // lease-break time (45 s by default), longer than the 20 s allowed here.
    EXPECT_EQ(shell("timeout 20 cp '" + other.string() + "' '" + path.string() + "'"), 0);
    done.store(true);
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_TRUE(file.changed());
    EXPECT_EQ(nonZeroBytes(file), 0u);
    EXPECT_EQ(fs::file_size(path), 32 * pageSize);
}

TEST_F(MappedFileTest, AFaultInAnUnleasedMappingBecomesAChangeOnWhicheverThreadTakesIt) {
    // A file open for writing elsewhere is never leased: these changes come without notice,
    // and every thread reads its own truncated mapping, so each of them takes the fault.
    constexpr int threads = 4;
    std::vector<int> writers;
    std::vector<std::unique_ptr<MappedFile>> files;
    for (int t = 0; t < threads; ++t) {
        const fs::path path = writeFile("model-" + std::to_string(t) + ".gguf", 16);
        writers.push_back(::open(path.c_str(), O_RDWR));
        files.push_back(std::make_unique<MappedFile>(path));
        EXPECT_FALSE(files.back()->leased());
        ASSERT_EQ(::ftruncate(writers.back(), 0), 0);
    }
    std::vector<std::size_t> seen(threads, 1);
    std::vector<std::thread> readers;
    for (int t = 0; t < threads; ++t) {
        readers.emplace_back([&, t] { seen[static_cast<std::size_t>(t)] = nonZeroBytes(*files[t]); });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(seen[static_cast<std::size_t>(t)], 0u);
        EXPECT_TRUE(files[static_cast<std::size_t>(t)]->changed());
        ::close(writers[static_cast<std::size_t>(t)]);
    }
}

TEST_F(MappedFileTest, AWriteWithoutNoticeIsSeenFromTheFilesTime) {
    const fs::path path = writeFile("model.gguf", 4);
    // Written an hour ago, so the write below gets another time even on a coarse clock.
    fs::last_write_time(path, fs::last_write_time(path) - std::chrono::hours(1));
    const int writer = ::open(path.c_str(), O_WRONLY); // no lease while this is open
    MappedFile file(path);
    EXPECT_FALSE(file.changed());
    ASSERT_EQ(::pwrite(writer, "x", 1, 100), 1);
    EXPECT_TRUE(file.changed());
    ::close(writer);
}

TEST_F(MappedFileTest, AFaultOutsideEveryGuardedMappingStillEndsTheProcess) {
    const fs::path path = writeFile("model.gguf", 4);
    const MappedFile guarded(path); // installs the handler
    const fs::path loose = writeFile("loose.bin", 4);
    EXPECT_EXIT(
        {
            const int fd = ::open(loose.c_str(), O_RDWR);
            auto* bytes = static_cast<volatile const char*>(
                ::mmap(nullptr, 4 * pageSize, PROT_READ, MAP_SHARED, fd, 0));
            (void)::ftruncate(fd, 0);
            std::exit(bytes[pageSize] == 0 ? 3 : 4);
        },
        ::testing::KilledBySignal(SIGBUS), "");
}

} // namespace
} // namespace parlune::llm
