#pragma once

#include "core/async/ChangeSignal.h"
#include "core/models/ModelCatalogue.h"
#include "core/models/VerifiedDownload.h"

#include <QFrame>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class QLabel;
class QNetworkAccessManager;
class QProgressBar;
class QPushButton;
class QVBoxLayout;

namespace parlune {
class ModelScanner;
struct DiscoveredModel;
} // namespace parlune

namespace parlune::app {

// "MODELS": the model files already on this computer (ours and other tools' stores), each with
// what it is and whether our engine runs it, and the recommended downloads with a verified,
// resumable download. Choosing a file stores it as the model to use. The network is touched only
// when the user starts a download.
class ModelLibraryView : public QFrame {
public:
    struct Dependencies {
        ModelScanner& scanner;
        QList<CatalogueEntry> catalogue;
        QString catalogueProblem;
        QString modelsFolder;
        // The file rewrites use now (empty when none), and how to make `path` the one.
        std::function<QString()> currentModelPath;
        std::function<void(const QString& path)> useModel;
        // Measures a file's speed here and calls back with one line (or why it could not).
        std::function<void(const QString& path, std::function<void(const QString& line)> done)> measureSpeed;
        // Tests only: how downloads reach the server.
        DownloadTransport transport;
    };

    explicit ModelLibraryView(Dependencies dependencies, QWidget* parent = nullptr);
    ~ModelLibraryView() override;

    void refresh();
    void startDownload(const CatalogueEntry& entry);
    VerifiedDownload* download() { return download_.get(); }
    // A line for the tray's tool tip and the model row while a download runs; empty otherwise.
    QString downloadSummary() const;
    ChangeSignal<> downloadChanged;

    // Buttons by the model they act on, for keyboard users' tab order and for tests.
    QPushButton* useButton(const QString& path) const;
    QPushButton* downloadButton(const QString& catalogueId) const;
    QPushButton* speedButton(const QString& path) const;
    // The last speed test of a file ("Measuring…" while it runs); empty when none ran.
    QString speedOf(const QString& path) const;
    QPushButton& pauseButton() { return *pause_; }
    QPushButton& cancelButton() { return *cancel_; }

private:
    void rebuildLists();
    void showDownloadState();

    Dependencies dependencies_;
    QVBoxLayout* installed_;
    QVBoxLayout* available_;
    QWidget* downloadRow_;
    QLabel* downloadTitle_;
    QProgressBar* progress_;
    QLabel* downloadDetail_;
    QPushButton* pause_;
    QPushButton* cancel_;
    std::unique_ptr<QNetworkAccessManager> network_;
    std::unique_ptr<VerifiedDownload> download_;
    std::optional<CatalogueEntry> downloading_;
    QString destination_;
    std::vector<std::pair<QString, QPushButton*>> useButtons_;
    std::vector<std::pair<QString, QPushButton*>> downloadButtons_;
    std::vector<std::pair<QString, QPushButton*>> speedButtons_;
    std::map<QString, QString> speeds_; // by path: the measured line, or "Measuring…"
    std::vector<Subscription> subscriptions_;
    std::vector<Subscription> downloadSubscriptions_;
};

} // namespace parlune::app
