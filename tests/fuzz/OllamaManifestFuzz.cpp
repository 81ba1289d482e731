// libFuzzer entry for the Ollama manifest reader: any input either yields a model layer whose
// digest cannot leave the blob folder, or a reason. Anything else (a crash, a sanitizer report,
// a layer with a reason, a reason without text) is a finding.

#include "core/models/OllamaManifest.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>

using parlune::OllamaManifest;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QByteArray json(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const OllamaManifest::Result result = OllamaManifest::read(json);
    if (result.modelLayer.has_value() == !result.problem.isEmpty()) {
        __builtin_trap();
    }
    if (result.modelLayer) {
        const QString blob = OllamaManifest::blobFileName(*result.modelLayer);
        if (result.modelLayer->digestHex.size() != 64 || blob.contains(u'/') ||
            blob.contains(QStringLiteral(".."))) {
            __builtin_trap();
        }
        if (result.modelLayer->size && *result.modelLayer->size < 0) {
            __builtin_trap();
        }
    }
    return 0;
}
