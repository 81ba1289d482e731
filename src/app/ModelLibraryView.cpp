#include "app/ModelLibraryView.h"

#include "app/Style.h"
#include "core/models/CatalogueDownload.h"
#include "core/models/MachineResources.h"
#include "core/models/ModelRecommendation.h"
#include "core/models/ModelScanner.h"

#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QProgressBar>
#include <QPushButton>
#include <QTime>
#include <QVBoxLayout>

namespace parlune::app {

namespace {

QString bytes(qint64 size) {
    return QLocale::system().formattedDataSize(size, 1, QLocale::DataSizeSIFormat);
}

QLabel* heading(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setFont(Style::system(12, QFont::Black));
    return label;
}

QLabel* detail(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setProperty("role", "detail");
    label->setTextFormat(Qt::PlainText);
    return label;
}

// Rows go later, not now: the click that asked for the rebuild may come from one of their buttons.
void clear(QVBoxLayout* layout) {
    while (QLayoutItem* item = layout->takeAt(0)) {
        if (QWidget* widget = item->widget()) {
            widget->hide();
            widget->deleteLater();
        }
        delete item;
    }
}

// One model: its title, a line of facts, and the action.
QWidget* modelRow(const QString& title, const QString& facts, QPushButton* action, QWidget* parent) {
    auto* row = new QWidget(parent);
    auto* text = new QVBoxLayout;
    text->setSpacing(1);
    auto* name = new QLabel(title, row);
    name->setTextFormat(Qt::PlainText);
    name->setWordWrap(true);
    text->addWidget(name);
    text->addWidget(detail(facts, row));
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 2, 0, 2);
    layout->addLayout(text, 1);
    action->setParent(row);
    layout->addWidget(action, 0, Qt::AlignTop);
    return row;
}

QPushButton* buttonFor(const std::vector<std::pair<QString, QPushButton*>>& buttons, const QString& key) {
    for (const auto& [name, button] : buttons) {
        if (name == key) {
            return button;
        }
    }
    return nullptr;
}

} // namespace

ModelLibraryView::ModelLibraryView(Dependencies dependencies, QWidget* parent)
    : QFrame(parent), dependencies_(std::move(dependencies)), installed_(new QVBoxLayout),
      available_(new QVBoxLayout), downloadRow_(new QWidget(this)), downloadTitle_(new QLabel(downloadRow_)),
      progress_(new QProgressBar(downloadRow_)), downloadDetail_(detail(QString(), downloadRow_)),
      pause_(new QPushButton(downloadRow_)),
      cancel_(new QPushButton(QStringLiteral("Cancel"), downloadRow_)) {
    setObjectName(QStringLiteral("modelLibrary"));
    Style::makePanel(*this);
    auto* title = new QLabel(QStringLiteral("Models"), this);
    title->setFont(Style::serif(19));
    auto* rescan = new QPushButton(QStringLiteral("Look Again"), this);
    Style::apply(*rescan, Style::ButtonStyle::text);
    QObject::connect(rescan, &QPushButton::clicked, [this] { dependencies_.scanner.rescan(); });
    auto* titleRow = new QHBoxLayout;
    titleRow->addWidget(title, 1);
    titleRow->addWidget(rescan);

    Style::apply(*pause_, Style::ButtonStyle::secondary);
    Style::apply(*cancel_, Style::ButtonStyle::secondary);
    progress_->setTextVisible(false);
    progress_->setFixedHeight(8);
    QObject::connect(pause_, &QPushButton::clicked, [this] {
        if (!download_) {
            return;
        }
        if (download_->state() == VerifiedDownload::State::paused ||
            download_->state() == VerifiedDownload::State::failed) {
            download_->start();
        } else {
            download_->pause();
        }
    });
    QObject::connect(cancel_, &QPushButton::clicked, [this] {
        if (download_) {
            download_->cancel();
        }
    });
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(pause_);
    buttons->addWidget(cancel_);
    buttons->addStretch(1);
    auto* downloadLayout = new QVBoxLayout(downloadRow_);
    downloadLayout->setContentsMargins(0, 4, 0, 4);
    downloadLayout->addWidget(downloadTitle_);
    downloadLayout->addWidget(progress_);
    downloadLayout->addWidget(downloadDetail_);
    downloadLayout->addLayout(buttons);
    downloadRow_->hide();

    auto* layout = new QVBoxLayout(this);
    layout->setSpacing(6);
    layout->addLayout(titleRow);
    layout->addWidget(heading(QStringLiteral("ON THIS COMPUTER"), this));
    layout->addLayout(installed_);
    layout->addSpacing(8);
    layout->addWidget(heading(QStringLiteral("DOWNLOAD"), this));
    layout->addWidget(
        detail(QStringLiteral("Downloads go to %1 and are checked against their published SHA-256 "
                              "before use. Nothing else is sent over the network.")
                   .arg(dependencies_.modelsFolder),
               this));
    layout->addWidget(downloadRow_);
    layout->addLayout(available_);

    subscriptions_.push_back(
        dependencies_.scanner.scanned.connect([this](const QList<DiscoveredModel>&) { refresh(); }));
    refresh();
}

ModelLibraryView::~ModelLibraryView() = default;

void ModelLibraryView::refresh() {
    rebuildLists();
    showDownloadState();
}

void ModelLibraryView::rebuildLists() {
    clear(installed_);
    clear(available_);
    useButtons_.clear();
    downloadButtons_.clear();
    speedButtons_.clear();

    const QString current = dependencies_.currentModelPath ? dependencies_.currentModelPath() : QString();
    const QList<DiscoveredModel>& models = dependencies_.scanner.models();
    if (models.isEmpty()) {
        installed_->addWidget(detail(dependencies_.scanner.scanning()
                                         ? QStringLiteral("Looking for model files…")
                                         : QStringLiteral("No model files were found on this computer."),
                                     this));
    }
    for (const DiscoveredModel& model : models) {
        const bool inUse = !current.isEmpty() && QFileInfo(current).canonicalFilePath() ==
                                                     QFileInfo(model.path).canonicalFilePath();
        auto* use = new QPushButton(inUse ? QStringLiteral("In Use") : QStringLiteral("Use"));
        Style::apply(*use, Style::ButtonStyle::secondary);
        use->setEnabled(model.usable() && !inUse);
        use->setAccessibleName(QStringLiteral("Use %1").arg(model.displayName));
        const QString path = model.path;
        QObject::connect(use, &QPushButton::clicked, [this, path] { dependencies_.useModel(path); });
        QStringList facts{modelSourceName(model.source), bytes(model.sizeBytes)};
        if (!model.facts.architecture.isEmpty()) {
            facts << model.facts.architecture;
        }
        if (!model.facts.weightType.isEmpty()) {
            facts << model.facts.weightType;
        }
        if (model.facts.contextLength > 0) {
            facts << QStringLiteral("context %1").arg(model.facts.contextLength);
        }
        QString line = facts.join(QStringLiteral(" · "));
        if (!model.usable()) {
            line += QStringLiteral("\nCannot be used: ") + model.facts.problem;
        } else if (const auto speed = speeds_.find(path); speed != speeds_.end()) {
            line += u'\n' + speed->second;
        }
        QWidget* row = modelRow(model.displayName, line, use, this);
        if (model.usable() && dependencies_.measureSpeed) {
            auto* measure = new QPushButton(QStringLiteral("Test Speed"), row);
            Style::apply(*measure, Style::ButtonStyle::text);
            measure->setAccessibleName(QStringLiteral("Test the speed of %1").arg(model.displayName));
            measure->setEnabled(speeds_[path] != QStringLiteral("Measuring…"));
            if (speeds_[path].isEmpty()) {
                speeds_.erase(path);
            }
            QObject::connect(measure, &QPushButton::clicked, [this, path] {
                speeds_[path] = QStringLiteral("Measuring…");
                refresh();
                dependencies_.measureSpeed(path, [this, path](const QString& result) {
                    speeds_[path] = result;
                    refresh();
                });
            });
            static_cast<QHBoxLayout*>(row->layout())->insertWidget(1, measure, 0, Qt::AlignTop);
            speedButtons_.emplace_back(path, measure);
        }
        installed_->addWidget(row);
        useButtons_.emplace_back(path, use);
    }

    if (!dependencies_.catalogueProblem.isEmpty()) {
        available_->addWidget(detail(dependencies_.catalogueProblem, this));
        return;
    }
    const std::optional<MachineResources> machine = MachineResources::current();
    const std::optional<CatalogueEntry> recommended =
        machine ? ModelRecommendation::recommend(dependencies_.catalogue, *machine) : std::nullopt;
    for (const CatalogueEntry& entry : dependencies_.catalogue) {
        auto* get = new QPushButton(QStringLiteral("Download"));
        Style::apply(*get, Style::ButtonStyle::secondary);
        get->setAccessibleName(QStringLiteral("Download %1").arg(entry.displayName));
        get->setEnabled(entry.downloadable() && !download_);
        const std::variant<DownloadRequest, QString> request =
            catalogueDownloadRequest(entry, dependencies_.modelsFolder);
        QObject::connect(get, &QPushButton::clicked, [this, entry] { startDownload(entry); });
        QStringList facts;
        if (const std::optional<qint64> size = entry.expectedSize()) {
            facts << bytes(*size);
        }
        facts << entry.licence << entry.notes;
        facts.removeAll(QString());
        QString line = facts.join(QStringLiteral(" · "));
        if (machine && entry.expectedSize() && !ModelRecommendation::fitsAvailableMemory(entry, *machine)) {
            line += u'\n' + ModelRecommendation::memoryShortfall(*entry.expectedSize(), *machine);
        }
        if (const auto* refusal = std::get_if<QString>(&request)) {
            get->setToolTip(*refusal);
        }
        const bool isRecommended = recommended && recommended->id == entry.id;
        const QString title =
            entry.displayName +
            (isRecommended ? QStringLiteral(" — recommended for this computer") : QString());
        available_->addWidget(modelRow(title, line, get, this));
        downloadButtons_.emplace_back(entry.id, get);
    }
}

void ModelLibraryView::startDownload(const CatalogueEntry& entry) {
    if (download_ && download_->state() != VerifiedDownload::State::finished &&
        download_->state() != VerifiedDownload::State::failed) {
        return; // one download at a time
    }
    std::variant<DownloadRequest, QString> request =
        catalogueDownloadRequest(entry, dependencies_.modelsFolder);
    if (auto* refusal = std::get_if<QString>(&request)) {
        downloading_ = entry;
        download_.reset();
        downloadTitle_->setText(entry.displayName);
        downloadDetail_->setText(*refusal);
        downloadRow_->show();
        return;
    }
    if (!network_) {
        // Created on the first download the user asks for: before that the program has no
        // network object at all.
        network_ = std::make_unique<QNetworkAccessManager>();
    }
    downloadSubscriptions_.clear();
    destination_ = std::get<DownloadRequest>(request).destinationPath;
    download_ = std::make_unique<VerifiedDownload>(*network_, std::get<DownloadRequest>(request),
                                                   dependencies_.transport);
    downloading_ = entry;
    downloadSubscriptions_.push_back(download_->progressed.connect([this](const DownloadProgress&) {
        showDownloadState();
        downloadChanged.emit();
    }));
    downloadSubscriptions_.push_back(download_->stateChanged.connect([this](VerifiedDownload::State state) {
        if (state == VerifiedDownload::State::finished) {
            dependencies_.useModel(destination_);
            dependencies_.scanner.rescan();
        }
        refresh();
        downloadChanged.emit();
    }));
    download_->start();
    refresh();
}

QString ModelLibraryView::downloadSummary() const {
    if (!download_ || !downloading_) {
        return {};
    }
    const DownloadProgress progress = download_->progress();
    switch (download_->state()) {
    case VerifiedDownload::State::preparing:
        return QStringLiteral("Preparing the download of %1…").arg(downloading_->displayName);
    case VerifiedDownload::State::downloading: {
        QString line = QStringLiteral("Downloading %1: %2")
                           .arg(downloading_->displayName, bytes(progress.receivedBytes));
        if (progress.totalBytes) {
            line += QStringLiteral(" of ") + bytes(*progress.totalBytes);
        }
        if (progress.bytesPerSecond > 0) {
            line += QStringLiteral(", %1/s").arg(bytes(static_cast<qint64>(progress.bytesPerSecond)));
        }
        if (progress.secondsLeft) {
            line += QStringLiteral(", about %1 left")
                        .arg(QLocale::system().toString(
                            QTime(0, 0).addSecs(static_cast<int>(*progress.secondsLeft)),
                            QStringLiteral("H:mm:ss")));
        }
        return line;
    }
    case VerifiedDownload::State::paused:
        return QStringLiteral("Download of %1 paused at %2.")
            .arg(downloading_->displayName, bytes(progress.receivedBytes));
    case VerifiedDownload::State::finished:
        return QStringLiteral("%1 is downloaded and verified.").arg(downloading_->displayName);
    case VerifiedDownload::State::failed:
        return download_->failure();
    case VerifiedDownload::State::idle:
        break;
    }
    return {};
}

void ModelLibraryView::showDownloadState() {
    if (!downloading_) {
        downloadRow_->hide();
        return;
    }
    downloadRow_->show();
    downloadTitle_->setText(downloading_->displayName);
    if (!download_) {
        return; // a refusal, shown as it was
    }
    const DownloadProgress progress = download_->progress();
    const VerifiedDownload::State state = download_->state();
    progress_->setRange(0, progress.totalBytes ? 1000 : 0);
    if (progress.totalBytes && *progress.totalBytes > 0) {
        progress_->setValue(static_cast<int>(1000 * progress.receivedBytes / *progress.totalBytes));
    }
    progress_->setVisible(state == VerifiedDownload::State::downloading ||
                          state == VerifiedDownload::State::paused ||
                          state == VerifiedDownload::State::preparing);
    downloadDetail_->setText(downloadSummary());
    const bool active =
        state == VerifiedDownload::State::downloading || state == VerifiedDownload::State::preparing;
    pause_->setText(active ? QStringLiteral("Pause") : QStringLiteral("Resume"));
    pause_->setVisible(state != VerifiedDownload::State::finished);
    cancel_->setVisible(active || state == VerifiedDownload::State::paused);
}

QPushButton* ModelLibraryView::useButton(const QString& path) const {
    return buttonFor(useButtons_, path);
}

QPushButton* ModelLibraryView::downloadButton(const QString& catalogueId) const {
    return buttonFor(downloadButtons_, catalogueId);
}

QPushButton* ModelLibraryView::speedButton(const QString& path) const {
    return buttonFor(speedButtons_, path);
}

QString ModelLibraryView::speedOf(const QString& path) const {
    const auto found = speeds_.find(path);
    return found == speeds_.end() ? QString() : found->second;
}

} // namespace parlune::app
