// libFuzzer entry for the GGUF reader: any input either opens into a file whose every accessor
// stays inside the buffer, or is refused with a GgufError. Anything else is a finding.

#include "llm/gguf/GgufFile.h"

#include <cstdint>
#include <cstring>
#include <vector>

using parlune::llm::GgufError;
using parlune::llm::GgufFile;
using parlune::llm::GgufTensorInfo;

namespace {

volatile std::size_t sink = 0;

void touch(std::string_view text) {
    if (!text.empty()) {
        sink = sink + static_cast<unsigned char>(text.front()) + static_cast<unsigned char>(text.back());
    }
}

void exercise(const GgufFile& file) {
    for (const std::string_view key : file.keys()) {
        touch(key);
        if (!file.hasKey(key) || !file.valueType(key)) {
            __builtin_trap();
        }
        if (const auto text = file.getString(key)) {
            touch(*text);
        }
        sink = sink + static_cast<std::size_t>(file.getInteger(key).value_or(0));
        sink = sink + static_cast<std::size_t>(file.getFloat(key).value_or(0.0) != 0.0);
        sink = sink + file.getBool(key).value_or(false);
        const auto length = file.arrayLength(key);
        if (length.has_value() != file.arrayElementType(key).has_value()) {
            __builtin_trap();
        }
        if (const auto strings = file.getStringArray(key)) {
            if (strings->size() != *length) {
                __builtin_trap();
            }
            for (const std::string_view s : *strings) {
                touch(s);
            }
        }
        if (const auto integers = file.getIntegerArray(key); integers && integers->size() != *length) {
            __builtin_trap();
        }
        if (const auto floats = file.getFloatArray(key); floats && floats->size() != *length) {
            __builtin_trap();
        }
    }
    for (const GgufTensorInfo& tensor : file.tensors()) {
        const auto bytes = file.tensorBytes(tensor);
        if (bytes.size() != tensor.byteSize || file.findTensor(tensor.name) != &tensor ||
            tensor.offset % file.alignment() != 0) {
            __builtin_trap();
        }
        sink = sink + std::to_integer<unsigned>(bytes.front()) + std::to_integer<unsigned>(bytes.back());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An exact-size heap copy, so a read one past the end is caught by AddressSanitizer.
    std::vector<std::byte> bytes(size);
    if (size > 0) {
        std::memcpy(bytes.data(), data, size);
    }
    try {
        exercise(*GgufFile::fromBuffer(std::move(bytes), "fuzz-input"));
    } catch (const GgufError&) {
    }
    return 0;
}
