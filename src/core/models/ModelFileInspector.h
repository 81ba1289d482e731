#pragma once

#include <QString>

namespace parlune {

// What the engine reads from a model file's header, and why it cannot run the file if it cannot.
struct ModelFileFacts {
    QString name; // general.name; empty when the file has none
    QString architecture;
    QString weightType; // e.g. "Q4_K_M"; empty when unknown
    qint64 contextLength = 0;
    bool hasChatTemplate = false;
    QString problem; // empty: the engine can run the file

    bool usable() const { return problem.isEmpty(); }
    friend bool operator==(const ModelFileFacts&, const ModelFileFacts&) = default;
};

// Port to the engine's model-file inspection, so the core needs no engine headers. Reads the
// header only, never the weights; must not throw.
class ModelFileInspector {
public:
    virtual ~ModelFileInspector() = default;
    virtual ModelFileFacts inspect(const QString& path) const = 0;
};

} // namespace parlune
