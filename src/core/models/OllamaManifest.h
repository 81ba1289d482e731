#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace parlune {

// The model layer of an Ollama manifest: the GGUF blob it names by digest.
struct OllamaModelLayer {
    QString digestHex; // 64 lowercase hex digits; the blob is blobs/sha256-<digestHex>
    std::optional<qint64> size;
};

// Reads an Ollama manifest (JSON with a "layers" array). Manifests come from folders other
// programs write, so anything unexpected becomes a one-line reason, never an exception, and a
// digest is accepted only in the exact form that cannot name a path outside the blob folder.
class OllamaManifest {
public:
    struct Result {
        std::optional<OllamaModelLayer> modelLayer;
        QString problem; // set when modelLayer is empty
    };

    static constexpr qint64 maxManifestBytes = 1 << 20;

    static Result read(const QByteArray& json);
    static QString blobFileName(const OllamaModelLayer& layer);
};

} // namespace parlune
