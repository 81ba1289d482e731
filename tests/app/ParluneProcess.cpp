#include "ParluneProcess.h"

#include "DesktopSession.h"
#include "core/platform/Workspace.h"
#include "llm/testing/TestModelMaker.h"
#include "platform/linux/SessionInstance.h"
#include "support/RunTask.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <sys/wait.h>

namespace parlune::test {

void writeTinyModel(const QString& path) {
    llm::TestModelRecipe recipe = *llm::TestModelRecipe::shape("tiny", llm::Architecture::qwen2);
    recipe.tiedOutput = false;
    llm::TestModelMaker::write(recipe, path.toStdString());
}

ParluneProcess::ParluneProcess(const QTemporaryDir& home, Options options)
    : home_(home), options_(std::move(options)) {}

bool ParluneProcess::isOnTheBus() {
    return QDBusConnection::sessionBus().interface()->isServiceRegistered(
        QString::fromLatin1(SessionInstance::serviceName));
}

bool ParluneProcess::start() {
    QString model = options_.model;
    if (model.isEmpty() && !options_.noModel) {
        model = home_.filePath(QStringLiteral("model.gguf"));
        if (!QFileInfo::exists(model)) {
            writeTinyModel(model);
        }
    }
    qputenv("XDG_CONFIG_HOME", home_.filePath(QStringLiteral("config")).toUtf8());
    qputenv("XDG_DATA_HOME", home_.filePath(QStringLiteral("data")).toUtf8());
    if (model.isEmpty()) {
        qunsetenv("PARLUNE_MODEL");
    } else {
        qputenv("PARLUNE_MODEL", model.toUtf8());
    }
    qputenv("QT_QPA_PLATFORM", options_.platform.toUtf8());
    pid_ = DesktopSession::spawn(options_.wrapper + QStringList{options_.binary},
                                 home_.filePath(QStringLiteral("parlune.log")));
    return pid_ > 0 && pumpUntil(isOnTheBus, 15000);
}

bool ParluneProcess::waitForSettingsWindow(Workspace& workspace) {
    const pid_t application = applicationPid();
    return pumpUntil(
        [&] {
            const auto front = workspace.frontmostApplication();
            return front && front->processIdentifier == application;
        },
        10000);
}

qint64 ParluneProcess::terminate(int* status) {
    if (pid_ <= 0) {
        return -1;
    }
    QElapsedTimer timer;
    timer.start();
    ::kill(options_.wrapper.isEmpty() ? pid_ : applicationPid(), SIGTERM);
    int waitStatus = 0;
    const bool exited = pumpUntil([&] { return ::waitpid(pid_, &waitStatus, WNOHANG) == pid_; }, 10000);
    const qint64 elapsed = timer.elapsed();
    if (!exited) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &waitStatus, 0);
    }
    if (status) {
        *status = waitStatus;
    }
    pid_ = -1;
    pumpUntil([] { return !isOnTheBus(); }, 3000);
    return exited ? elapsed : -1;
}

QString ParluneProcess::log() const {
    QFile file(home_.filePath(QStringLiteral("parlune.log")));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll().right(4000)) : QString();
}

pid_t ParluneProcess::applicationPid() const {
    const QDBusReply<uint> reply = QDBusConnection::sessionBus().interface()->servicePid(
        QString::fromLatin1(SessionInstance::serviceName));
    return reply.isValid() ? static_cast<pid_t>(reply.value()) : pid_;
}

} // namespace parlune::test
