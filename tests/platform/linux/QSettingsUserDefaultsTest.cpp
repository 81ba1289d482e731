#include "platform/linux/QSettingsUserDefaults.h"
#include "support/QtPrinters.h"
#include "support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <optional>
#include <unistd.h>

namespace parlune {
namespace {

using test::readFile;
using test::writeFile;

// The files next to the settings file whose names begin with its name and ".corrupt-".
QStringList setAsideFiles(const QString& path) {
    const QFileInfo info(path);
    return info.dir().entryList({info.fileName() + QStringLiteral(".corrupt-*")},
                                QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot);
}

class QSettingsUserDefaultsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir_.isValid()); }
    QTemporaryDir dir_;
    QString file(const char* name = "parlune/parlune.conf") const {
        return dir_.filePath(QString::fromLatin1(name));
    }
};

TEST_F(QSettingsUserDefaultsTest, AbsentValuesReadAsNothingZeroAndFalse) {
    QSettingsUserDefaults defaults(file());
    EXPECT_EQ(defaults.string("missing"), std::nullopt);
    EXPECT_EQ(defaults.integer("missing"), 0);
    EXPECT_FALSE(defaults.boolean("missing"));
    EXPECT_TRUE(defaults.setAsidePath().isEmpty());
    defaults.remove("missing");
    EXPECT_FALSE(QFile::exists(dir_.filePath("parlune")))
        << "reading and removing nothing must not create files";
}

TEST_F(QSettingsUserDefaultsTest, ValuesSurviveReopeningWithTheirExactText) {
    const QStringList tricky = {
        QString(),
        QStringLiteral("  padded  "),
        QStringLiteral("a, b,c"),
        QStringLiteral("\"quoted\" and \\ back-slash"),
        QStringLiteral("line one\nline two\r\n"),
        QStringLiteral("@Variant(not really)"),
        QStringLiteral("; not a comment # nor this"),
        QStringLiteral("[section]"),
        QStringLiteral("key=value"),
        QStringLiteral("日本語 🙂 ü"),
        QStringLiteral(R"({"Casual":"short, sweet","Professional":"a \"b\""})"),
    };
    {
        QSettingsUserDefaults defaults(file());
        for (qsizetype i = 0; i < tricky.size(); ++i) {
            defaults.setString(QStringLiteral("text%1").arg(i), tricky[i]);
        }
        defaults.setInteger("code", 49);
        defaults.setInteger("big", 4294967296);
        defaults.setInteger("negative", -9878);
        defaults.setBoolean("yes", true);
        defaults.setBoolean("no", false);
        defaults.setString("gone", "soon");
        defaults.remove("gone");
        defaults.remove("never-there");
        EXPECT_TRUE(defaults.isPersisting());
    }
    QSettingsUserDefaults reopened(file());
    for (qsizetype i = 0; i < tricky.size(); ++i) {
        EXPECT_EQ(reopened.string(QStringLiteral("text%1").arg(i)), tricky[i]) << i;
    }
    EXPECT_EQ(reopened.integer("code"), 49);
    EXPECT_EQ(reopened.integer("big"), 4294967296);
    EXPECT_EQ(reopened.integer("negative"), -9878);
    EXPECT_TRUE(reopened.boolean("yes"));
    EXPECT_FALSE(reopened.boolean("no"));
    EXPECT_EQ(reopened.string("gone"), std::nullopt);

    // A second program reading the file sees the same values.
    QSettings independent(file(), QSettings::IniFormat);
    EXPECT_EQ(independent.value("code").toInt(), 49);
}

TEST_F(QSettingsUserDefaultsTest, HandEditedValuesAreReadLeniently) {
    writeFile(file(), "[General]\ncode = 15 \nflag1=TRUE\nflag2=1\nflag3=yes\nflag4=0\nflag5=maybe\n"
                      "notanumber=12abc\nlist=a, b\n");
    QSettingsUserDefaults defaults(file());
    EXPECT_EQ(defaults.integer("code"), 15);
    EXPECT_TRUE(defaults.boolean("flag1"));
    EXPECT_TRUE(defaults.boolean("flag2"));
    EXPECT_TRUE(defaults.boolean("flag3"));
    EXPECT_FALSE(defaults.boolean("flag4"));
    EXPECT_FALSE(defaults.boolean("flag5"));
    EXPECT_EQ(defaults.integer("notanumber"), 0);
    EXPECT_EQ(defaults.integer("list"), 0);
    EXPECT_EQ(defaults.string("list"), QStringLiteral("a, b"));
    EXPECT_EQ(defaults.string("code"), QStringLiteral("15"));
}

// Set aside once, whole, and never written over by the saves that follow.
TEST_F(QSettingsUserDefaultsTest, FilesTheReaderCannotParseOrThatAreNotTextAreSetAside) {
    const QByteArray samples[] = {
        QByteArray("[General\nrewriteMode=Casual\n"),
        QByteArray("[General]\nrewriteMode=Caf\xe9\n"),
        QByteArray("[General]\nrewriteMode=Casual\n\x00", 30),
        QByteArray("\x00\x01\xff\xfe[General]\nrewriteMode=Casual\n\x00\x00", 33),
    };
    for (const QByteArray& sample : samples) {
        writeFile(file(), sample);
        QSettingsUserDefaults defaults(file());
        ASSERT_TRUE(defaults.setAsidePath().startsWith(file() + ".corrupt-")) << sample.toStdString();
        EXPECT_EQ(defaults.string("rewriteMode"), std::nullopt);
        defaults.setString("rewriteMode", "Professional");
        EXPECT_TRUE(defaults.isPersisting());
        EXPECT_EQ(readFile(defaults.setAsidePath()), sample);
        const QSettingsUserDefaults reopened(file());
        EXPECT_EQ(reopened.string("rewriteMode"), QStringLiteral("Professional"));
        EXPECT_TRUE(reopened.setAsidePath().isEmpty());
        EXPECT_EQ(setAsideFiles(file()).size(), 1);
        QFile::remove(defaults.setAsidePath());
        QThread::msleep(2); // distinct time stamps in the set-aside names
    }
}

TEST_F(QSettingsUserDefaultsTest, LinesTheReaderSkipsAreSetAsideAtOpeningSoASaveNeverDropsThem) {
    const QByteArray samples[] = {
        QByteArray("[General]\nxxxx\nrewriteMode=Casual\n"),
        QByteArray("\xef\xbb\xbf[General]\nrewriteMode=Casual\n"),
        QByteArray("[General]\n\\=1\nrewriteMode=Casual\n"),
        QByteArray(50 * 1024 * 1024, 'x'),
    };
    for (const QByteArray& sample : samples) {
        writeFile(file(), sample);
        QSettingsUserDefaults defaults(file());
        ASSERT_FALSE(defaults.setAsidePath().isEmpty()) << sample.left(40).toStdString();
        defaults.setString("rewriteMode", "Professional");
        EXPECT_TRUE(defaults.isPersisting()) << "the save is done and reported so";
        EXPECT_EQ(readFile(defaults.setAsidePath()), sample);
        EXPECT_EQ(QSettingsUserDefaults(file()).string("rewriteMode"), QStringLiteral("Professional"));
        QFile::remove(defaults.setAsidePath());
        QThread::msleep(2); // distinct time stamps in the set-aside names
    }
}

TEST_F(QSettingsUserDefaultsTest, ASaveWhoseLockCannotBeTakenEndsAsNotSaved) {
    QSettingsUserDefaults defaults(file());
    defaults.setString("rewriteMode", "Casual");
    ASSERT_TRUE(defaults.isPersisting());
    // A directory where the lock file goes: the lock can never be created.
    ASSERT_TRUE(QDir().mkpath(file() + ".lock"));
    defaults.setString("rewriteMode", "Professional");
    EXPECT_FALSE(defaults.isPersisting());
    EXPECT_EQ(defaults.string("rewriteMode"), QStringLiteral("Professional")); // kept for this run
    EXPECT_TRUE(readFile(file()).contains("rewriteMode=Casual"));
    // Opening waits no longer either: the defaults apply for that run.
    const QSettingsUserDefaults blocked(file());
    EXPECT_FALSE(blocked.isPersisting());
    EXPECT_EQ(blocked.string("rewriteMode"), std::nullopt);
    ASSERT_TRUE(QDir(file() + ".lock").removeRecursively());
    defaults.setString("workflow", "done");
    EXPECT_TRUE(defaults.isPersisting());
    EXPECT_EQ(QSettingsUserDefaults(file()).string("rewriteMode"), QStringLiteral("Professional"));
}

TEST_F(QSettingsUserDefaultsTest, TheFileIsReadableByItsOwnerOnly) {
    const auto ownerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
    const auto others = QFileDevice::ReadGroup | QFileDevice::ReadOther | QFileDevice::WriteGroup |
                        QFileDevice::WriteOther | QFileDevice::ReadUser | QFileDevice::WriteUser;
    QSettingsUserDefaults defaults(file());
    defaults.setString("writingPreferences", "Short lines");
    EXPECT_EQ(QFile::permissions(file()) & ~(QFileDevice::ReadUser | QFileDevice::WriteUser), ownerOnly);
    // A file an older version left readable by everyone is tightened at the next save.
    ASSERT_TRUE(QFile::setPermissions(file(), ownerOnly | QFileDevice::ReadGroup | QFileDevice::ReadOther));
    defaults.setString("writingPreferences", "Long lines");
    EXPECT_EQ(QFile::permissions(file()) & others & ~(QFileDevice::ReadUser | QFileDevice::WriteUser),
              QFileDevice::Permissions());
}

TEST_F(QSettingsUserDefaultsTest, UnreadablePathIsSetAsideToo) {
    // Root reads any file, so a directory in the file's place stands for one that cannot be read.
    ASSERT_TRUE(QDir().mkpath(file()));
    writeFile(file() + "/inside", "kept");
    QSettingsUserDefaults defaults(file());
    EXPECT_EQ(defaults.integer("hotKeyKeyCode"), 0);
    ASSERT_FALSE(defaults.setAsidePath().isEmpty());
    EXPECT_EQ(readFile(defaults.setAsidePath() + "/inside"), "kept");
    defaults.setInteger("hotKeyKeyCode", 15);
    EXPECT_EQ(QSettingsUserDefaults(file()).integer("hotKeyKeyCode"), 15);
}

TEST_F(QSettingsUserDefaultsTest, FileWithoutReadPermissionIsSetAside) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root reads files without read permission; the directory case above stands in";
    }
    writeFile(file(), "[General]\nrewriteMode=Casual\n");
    ASSERT_TRUE(QFile::setPermissions(file(), QFileDevice::Permissions()));
    QSettingsUserDefaults defaults(file());
    EXPECT_FALSE(defaults.setAsidePath().isEmpty());
    EXPECT_EQ(defaults.string("rewriteMode"), std::nullopt);
}

TEST_F(QSettingsUserDefaultsTest, PathThatCanBeNeitherReadNorMovedKeepsChangesInMemory) {
    // A directory of the kernel's process file system can be neither parsed nor renamed.
    QSettingsUserDefaults defaults(QStringLiteral("/proc/self/fd"));
    EXPECT_TRUE(defaults.setAsidePath().isEmpty());
    EXPECT_FALSE(defaults.isPersisting());
    EXPECT_EQ(defaults.string("rewriteMode"), std::nullopt);
    defaults.setString("rewriteMode", "Casual");
    defaults.setBoolean("flag", true);
    EXPECT_EQ(defaults.string("rewriteMode"), QStringLiteral("Casual"));
    EXPECT_TRUE(defaults.boolean("flag"));
    defaults.remove("flag");
    EXPECT_FALSE(defaults.boolean("flag"));
}

TEST_F(QSettingsUserDefaultsTest, FailedSaveKeepsTheValueForThisRun) {
    QSettingsUserDefaults defaults(file());
    defaults.setString("first", "saved");
    ASSERT_TRUE(defaults.isPersisting());
    // The configuration directory becomes a file: nothing can be saved there any more.
    ASSERT_TRUE(QDir(dir_.filePath("parlune")).removeRecursively());
    writeFile(dir_.filePath("parlune"), "not a directory");

    defaults.setString("second", "kept");
    EXPECT_FALSE(defaults.isPersisting());
    EXPECT_EQ(defaults.string("second"), QStringLiteral("kept"));
    EXPECT_EQ(readFile(dir_.filePath("parlune")), "not a directory");
}

TEST_F(QSettingsUserDefaultsTest, DefaultPathFollowsXdgConfigHome) {
    const QByteArray saved = qgetenv("XDG_CONFIG_HOME");
    qputenv("XDG_CONFIG_HOME", "/tmp/xdg-config");
    EXPECT_EQ(QSettingsUserDefaults::defaultPath(), "/tmp/xdg-config/parlune/parlune.conf");
    qputenv("XDG_CONFIG_HOME", "relative/dir");
    EXPECT_EQ(QSettingsUserDefaults::defaultPath(), QDir::homePath() + "/.config/parlune/parlune.conf");
    qunsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(QSettingsUserDefaults::defaultPath(), QDir::homePath() + "/.config/parlune/parlune.conf");
    if (!saved.isNull()) {
        qputenv("XDG_CONFIG_HOME", saved);
    }
}

QProcess* startWriter(const QString& path, const QString& key, int count, int padding = 0) {
    auto* process = new QProcess;
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process->start(QStringLiteral(SETTINGS_WRITER_PATH),
                   {path, key, QString::number(count), QString::number(padding)});
    return process;
}

TEST_F(QSettingsUserDefaultsTest, ConcurrentWritersLoseNoneOfTheirLastValues) {
    constexpr int rounds = 40;
    std::unique_ptr<QProcess> first(startWriter(file(), "first", rounds));
    std::unique_ptr<QProcess> second(startWriter(file(), "second", rounds));
    QSettingsUserDefaults local(file());
    for (int i = 0; i < rounds; ++i) {
        local.setInteger("local", i);
    }
    for (QProcess* process : {first.get(), second.get()}) {
        ASSERT_TRUE(process->waitForFinished(60'000));
        EXPECT_EQ(process->exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(process->exitCode(), 0);
    }
    QSettings check(file(), QSettings::IniFormat);
    EXPECT_EQ(check.status(), QSettings::NoError);
    QSettingsUserDefaults reopened(file());
    EXPECT_EQ(reopened.integer("first"), rounds - 1);
    EXPECT_EQ(reopened.integer("second"), rounds - 1);
    EXPECT_EQ(reopened.integer("local"), rounds - 1);
    EXPECT_TRUE(setAsideFiles(file()).isEmpty());
}

TEST_F(QSettingsUserDefaultsTest, KillingAWriterMidSaveLeavesAWholeFile) {
    for (int attempt = 0; attempt < 6; ++attempt) {
        std::unique_ptr<QProcess> writer(startWriter(file(), "counter", 0, 200'000));
        ASSERT_TRUE(writer->waitForStarted());
        QThread::msleep(60 + 37 * attempt);
        ::kill(static_cast<pid_t>(writer->processId()), SIGKILL);
        ASSERT_TRUE(writer->waitForFinished(10'000));

        QSettingsUserDefaults reopened(file());
        EXPECT_TRUE(reopened.setAsidePath().isEmpty()) << "attempt " << attempt;
        const std::optional<QString> padding = reopened.string("counter.padding");
        if (padding) {
            EXPECT_EQ(padding->size(), 200'000) << "attempt " << attempt;
        }
    }
    EXPECT_TRUE(setAsideFiles(file()).isEmpty());
}

} // namespace
} // namespace parlune
