#include "llm/gguf/GgufFile.h"

#include "llm/gguf/GgufCursor.h"
#include "llm/gguf/MappedFile.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace parlune::llm {

namespace {

constexpr std::uint64_t kDefaultAlignment = 32;
constexpr std::uint64_t kMaxAlignment = std::uint64_t{1} << 30;
constexpr std::uint32_t kMaxDimensions = 4;
constexpr int kMaxArrayNesting = 8;
constexpr std::string_view kAlignmentKey = "general.alignment";

// Smallest possible encodings, used to refuse counts the rest of the file cannot hold before
// anything is reserved: a metadata entry is a key length, a key of at least one byte, a value
// type and a value of at least one byte; a tensor entry is a name length, a name of at least one
// byte, a dimension count, one dimension, an element type and an offset.
constexpr std::uint64_t kMinMetadataEntryBytes = 8 + 1 + 4 + 1;
constexpr std::uint64_t kMinTensorEntryBytes = 8 + 1 + 4 + 8 + 4 + 8;
constexpr std::uint64_t kStringHeaderBytes = 8;
constexpr std::uint64_t kArrayHeaderBytes = 4 + 8;

// Names and keys come from an untrusted file: keep messages printable and short.
std::string shown(std::string_view text) {
    constexpr std::size_t kMaxShown = 96;
    std::string out = "'";
    for (std::size_t i = 0; i < text.size() && i < kMaxShown; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
        } else {
            constexpr char kHex[] = "0123456789abcdef";
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 0xf];
        }
    }
    if (text.size() > kMaxShown) {
        out += "...";
    }
    out += "'";
    return out;
}

template <typename T> T loadAt(std::span<const std::byte> bytes, std::size_t offset) {
    T value{};
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

std::optional<std::int64_t> integerAt(std::span<const std::byte> bytes, GgufValueType type,
                                      std::size_t offset) {
    switch (type) {
    case GgufValueType::UInt8:
        return loadAt<std::uint8_t>(bytes, offset);
    case GgufValueType::Int8:
        return loadAt<std::int8_t>(bytes, offset);
    case GgufValueType::UInt16:
        return loadAt<std::uint16_t>(bytes, offset);
    case GgufValueType::Int16:
        return loadAt<std::int16_t>(bytes, offset);
    case GgufValueType::UInt32:
        return loadAt<std::uint32_t>(bytes, offset);
    case GgufValueType::Int32:
        return loadAt<std::int32_t>(bytes, offset);
    case GgufValueType::Int64:
        return loadAt<std::int64_t>(bytes, offset);
    case GgufValueType::UInt64: {
        const auto value = loadAt<std::uint64_t>(bytes, offset);
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(value);
    }
    default:
        return std::nullopt;
    }
}

std::string_view stringAt(std::span<const std::byte> bytes, std::size_t offset) {
    const auto length = loadAt<std::uint64_t>(bytes, offset);
    return {reinterpret_cast<const char*>(bytes.data() + offset + kStringHeaderBytes),
            static_cast<std::size_t>(length)};
}

std::string dimsText(const std::vector<std::int64_t>& dims) {
    std::string text;
    for (std::size_t i = 0; i < dims.size(); ++i) {
        text += (i == 0 ? "" : " x ") + std::to_string(dims[i]);
    }
    return text;
}

} // namespace

class GgufFile::Parser {
public:
    Parser(GgufFile& file, std::string source) : file_(file), cursor_(file.bytes_, std::move(source)) {}

    void run() {
        readHeader();
        readMetadata();
        readAlignment();
        readTensorTable();
        placeTensorData();
    }

private:
    void readHeader() {
        constexpr char kMagic[4] = {'G', 'G', 'U', 'F'};
        if (cursor_.size() == 0) {
            cursor_.fail("not a GGUF file (the file is empty)");
        }
        if (cursor_.size() < sizeof kMagic || std::memcmp(file_.bytes_.data(), kMagic, sizeof kMagic) != 0) {
            const std::size_t shownBytes = std::min<std::size_t>(file_.bytes_.size(), sizeof kMagic);
            cursor_.fail("not a GGUF file (it starts with " +
                         shown({reinterpret_cast<const char*>(file_.bytes_.data()), shownBytes}) +
                         ", not 'GGUF')");
        }
        cursor_.readBytes(sizeof kMagic, "magic");
        const std::uint32_t version = cursor_.readU32("version");
        if (version == 1) {
            cursor_.fail("GGUF version 1 is not supported (only versions 2 and 3)");
        }
        if (version == 0x02000000u || version == 0x03000000u) {
            cursor_.fail("a big-endian GGUF file; only little-endian files are supported");
        }
        if (version != 2 && version != 3) {
            cursor_.fail("unsupported GGUF version " + std::to_string(version) + " (only versions 2 and 3)");
        }
        file_.version_ = version;
        tensorCount_ = cursor_.readU64("tensor count");
        metadataCount_ = cursor_.readU64("metadata count");
        const std::uint64_t left = cursor_.remaining();
        if (metadataCount_ > left / kMinMetadataEntryBytes) {
            cursor_.fail("metadata count " + std::to_string(metadataCount_) + " is more than the remaining " +
                         std::to_string(left) + " bytes of the file can hold");
        }
        if (tensorCount_ > left / kMinTensorEntryBytes) {
            cursor_.fail("tensor count " + std::to_string(tensorCount_) + " is more than the remaining " +
                         std::to_string(left) + " bytes of the file can hold");
        }
    }

    void readMetadata() {
        file_.metadata_.reserve(static_cast<std::size_t>(metadataCount_));
        file_.metadataIndex_.reserve(static_cast<std::size_t>(metadataCount_));
        for (std::uint64_t i = 0; i < metadataCount_; ++i) {
            cursor_.setContext("metadata entry " + std::to_string(i + 1) + " of " +
                               std::to_string(metadataCount_));
            MetadataEntry entry;
            entry.key = cursor_.readString("key");
            if (entry.key.empty()) {
                cursor_.fail("empty key");
            }
            cursor_.setContext("metadata " + shown(entry.key));
            if (file_.metadataIndex_.contains(entry.key)) {
                cursor_.fail("the key appears more than once");
            }
            entry.type = readValueType("value type");
            if (entry.type == GgufValueType::Array) {
                entry.elementType = readValueType("array element type");
                entry.count = cursor_.readU64("array length");
                entry.valueOffset = static_cast<std::size_t>(cursor_.position());
                skipArrayElements(entry.elementType, entry.count, 1);
            } else {
                entry.valueOffset = static_cast<std::size_t>(cursor_.position());
                skipValue(entry.type, 0);
            }
            file_.metadataIndex_.emplace(entry.key, file_.metadata_.size());
            file_.metadata_.push_back(entry);
        }
        cursor_.setContext({});
    }

    GgufValueType readValueType(std::string_view what) {
        const std::uint32_t id = cursor_.readU32(what);
        const std::optional<GgufValueType> type = ggufValueTypeFromId(id);
        if (!type) {
            cursor_.fail("unknown " + std::string(what) + " id " + std::to_string(id) + " at byte " +
                         std::to_string(cursor_.position() - 4));
        }
        return *type;
    }

    void skipValue(GgufValueType type, int nesting) {
        if (type == GgufValueType::String) {
            cursor_.readString("string value");
        } else if (type == GgufValueType::Array) {
            const GgufValueType elementType = readValueType("array element type");
            const std::uint64_t count = cursor_.readU64("array length");
            skipArrayElements(elementType, count, nesting + 1);
        } else {
            const std::span<const std::byte> value = cursor_.readBytes(*ggufFixedValueSize(type), "value");
            if (type == GgufValueType::Bool) {
                checkBools(value);
            }
        }
    }

    void checkBools(std::span<const std::byte> values) const {
        for (std::size_t i = 0; i < values.size(); ++i) {
            const auto value = std::to_integer<unsigned>(values[i]);
            if (value > 1) {
                const std::string where =
                    values.size() > 1 ? " in element " + std::to_string(i) : std::string();
                cursor_.fail("invalid bool value " + std::to_string(value) + where + " (must be 0 or 1)");
            }
        }
    }

    // Walks (and so validates) every element, nested arrays included, so getters can trust
    // the bytes later without checks.
    void skipArrayElements(GgufValueType elementType, std::uint64_t count, int nesting) {
        if (nesting > kMaxArrayNesting) {
            cursor_.fail("arrays are nested more than " + std::to_string(kMaxArrayNesting) + " deep");
        }
        const std::uint64_t start = cursor_.position();
        const std::uint64_t left = cursor_.remaining();
        const std::optional<std::size_t> fixedSize = ggufFixedValueSize(elementType);
        const std::uint64_t minElementBytes =
            fixedSize ? *fixedSize
                      : (elementType == GgufValueType::String ? kStringHeaderBytes : kArrayHeaderBytes);
        if (count > left / minElementBytes) {
            cursor_.fail("array of " + std::to_string(count) + " " +
                         std::string(ggufValueTypeName(elementType)) + " values at byte " +
                         std::to_string(start) + " does not fit in the " + std::to_string(left) +
                         " bytes left in the file");
        }
        if (fixedSize) {
            const std::span<const std::byte> values = cursor_.readBytes(count * *fixedSize, "array");
            if (elementType == GgufValueType::Bool) {
                checkBools(values);
            }
            return;
        }
        for (std::uint64_t i = 0; i < count; ++i) {
            if (elementType == GgufValueType::String) {
                const std::uint64_t at = cursor_.position();
                const std::uint64_t length = cursor_.readU64("array string length");
                if (length > cursor_.remaining()) {
                    cursor_.fail("string " + std::to_string(i) + " of the array (at byte " +
                                 std::to_string(at) + ") claims " + std::to_string(length) +
                                 " bytes, but only " + std::to_string(cursor_.remaining()) +
                                 " are left in the file");
                }
                cursor_.readBytes(length, "array string");
            } else {
                skipValue(GgufValueType::Array, nesting);
            }
        }
    }

    void readAlignment() {
        const MetadataEntry* entry = file_.find(kAlignmentKey);
        if (entry == nullptr) {
            file_.alignment_ = kDefaultAlignment;
            return;
        }
        cursor_.setContext("metadata " + shown(kAlignmentKey));
        const std::optional<std::int64_t> value =
            isGgufIntegerType(entry->type) ? integerAt(file_.bytes_, entry->type, entry->valueOffset)
                                           : std::nullopt;
        if (!value) {
            cursor_.fail("must be an unsigned integer, not " + std::string(ggufValueTypeName(entry->type)));
        }
        const auto alignment = static_cast<std::uint64_t>(*value);
        if (*value <= 0 || (alignment & (alignment - 1)) != 0 || alignment > kMaxAlignment) {
            cursor_.fail(std::to_string(*value) + " is not a power of two between 1 and " +
                         std::to_string(kMaxAlignment));
        }
        file_.alignment_ = static_cast<std::size_t>(alignment);
        cursor_.setContext({});
    }

    void readTensorTable() {
        file_.tensors_.reserve(static_cast<std::size_t>(tensorCount_));
        file_.tensorIndex_.reserve(static_cast<std::size_t>(tensorCount_));
        for (std::uint64_t i = 0; i < tensorCount_; ++i) {
            cursor_.setContext("tensor entry " + std::to_string(i + 1) + " of " +
                               std::to_string(tensorCount_));
            const std::string_view name = cursor_.readString("name");
            if (name.empty()) {
                cursor_.fail("empty tensor name");
            }
            cursor_.setContext("tensor " + shown(name));
            if (file_.tensorIndex_.contains(name)) {
                cursor_.fail("the name appears more than once");
            }
            file_.tensorIndex_.emplace(name, file_.tensors_.size());
            file_.tensors_.push_back(readTensorInfo(name));
        }
        cursor_.setContext({});
    }

    GgufTensorInfo readTensorInfo(std::string_view name) {
        GgufTensorInfo tensor;
        tensor.name = std::string(name);
        const std::uint32_t dimCount = cursor_.readU32("dimension count");
        if (dimCount == 0 || dimCount > kMaxDimensions) {
            cursor_.fail(std::to_string(dimCount) + " dimensions (1 to " + std::to_string(kMaxDimensions) +
                         " are supported)");
        }
        std::int64_t elements = 1;
        for (std::uint32_t d = 0; d < dimCount; ++d) {
            const std::uint64_t dim = cursor_.readU64("dimension");
            if (dim == 0) {
                cursor_.fail("dimension " + std::to_string(d) + " is 0");
            }
            if (dim > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                cursor_.fail("dimension " + std::to_string(d) + " (" + std::to_string(dim) +
                             ") is too large");
            }
            tensor.dims.push_back(static_cast<std::int64_t>(dim));
            if (__builtin_mul_overflow(elements, static_cast<std::int64_t>(dim), &elements)) {
                cursor_.fail("element count of " + dimsText(tensor.dims) + " overflows");
            }
        }
        tensor.elementCount = elements;

        const std::uint32_t typeId = cursor_.readU32("element type");
        const std::optional<GgmlTypeTraits> traits = ggmlTypeTraits(typeId);
        if (!traits) {
            cursor_.fail("unknown element type id " + std::to_string(typeId));
        }
        tensor.type = static_cast<GgmlType>(typeId);
        tensor.offset = cursor_.readU64("data offset");

        if (tensor.dims[0] % traits->blockElements != 0) {
            cursor_.fail("row length " + std::to_string(tensor.dims[0]) + " is not a multiple of the " +
                         std::string(traits->name) + " block size " + std::to_string(traits->blockElements));
        }
        const std::optional<std::size_t> rowBytes = ggmlRowBytes(tensor.type, tensor.dims[0]);
        const auto rows = static_cast<std::uint64_t>(elements / tensor.dims[0]);
        std::uint64_t size = 0;
        if (!rowBytes || __builtin_mul_overflow(static_cast<std::uint64_t>(*rowBytes), rows, &size) ||
            size > std::numeric_limits<std::size_t>::max()) {
            cursor_.fail("data size of " + dimsText(tensor.dims) + " " + std::string(traits->name) +
                         " overflows");
        }
        tensor.byteSize = static_cast<std::size_t>(size);
        if (tensor.offset % file_.alignment_ != 0) {
            cursor_.fail("data offset " + std::to_string(tensor.offset) +
                         " is not a multiple of the alignment " + std::to_string(file_.alignment_));
        }
        return tensor;
    }

    void placeTensorData() {
        const std::uint64_t tableEnd = cursor_.position();
        const std::uint64_t alignment = file_.alignment_;
        // tableEnd is at most the file size and alignment at most 2^30: no overflow.
        file_.dataOffset_ = (tableEnd + alignment - 1) / alignment * alignment;
        const std::uint64_t fileSize = cursor_.size();

        std::vector<std::size_t> order(file_.tensors_.size());
        for (std::size_t i = 0; i < order.size(); ++i) {
            const GgufTensorInfo& tensor = file_.tensors_[i];
            order[i] = i;
            cursor_.setContext("tensor " + shown(tensor.name));
            if (tensor.offset > fileSize || file_.dataOffset_ + tensor.offset > fileSize) {
                cursor_.fail("data offset " + std::to_string(tensor.offset) +
                             " (from the data section at byte " + std::to_string(file_.dataOffset_) +
                             ") lies past the end of the file (" + std::to_string(fileSize) + " bytes)");
            }
            const std::uint64_t begin = file_.dataOffset_ + tensor.offset;
            std::uint64_t end = 0;
            const bool overflows = __builtin_add_overflow(begin, tensor.byteSize, &end);
            if (overflows || end > fileSize) {
                const std::string range =
                    overflows ? std::to_string(tensor.byteSize) + " bytes from byte " + std::to_string(begin)
                              : "range " + std::to_string(begin) + ".." + std::to_string(end);
                cursor_.fail("data " + range + " lies past the end of the file (" + std::to_string(fileSize) +
                             " bytes)");
            }
        }
        cursor_.setContext({});

        std::sort(order.begin(), order.end(), [this](std::size_t a, std::size_t b) {
            return file_.tensors_[a].offset < file_.tensors_[b].offset;
        });
        for (std::size_t i = 1; i < order.size(); ++i) {
            const GgufTensorInfo& previous = file_.tensors_[order[i - 1]];
            const GgufTensorInfo& current = file_.tensors_[order[i]];
            if (previous.offset + previous.byteSize > current.offset) {
                cursor_.fail("tensor " + shown(previous.name) + " (data " + std::to_string(previous.offset) +
                             ".." + std::to_string(previous.offset + previous.byteSize) +
                             ") overlaps tensor " + shown(current.name) + " (data from " +
                             std::to_string(current.offset) + ")");
            }
        }
    }

    GgufFile& file_;
    GgufCursor cursor_;
    std::uint64_t tensorCount_ = 0;
    std::uint64_t metadataCount_ = 0;
};

std::shared_ptr<const GgufFile> GgufFile::open(const std::filesystem::path& path) {
    auto mapping = std::make_shared<const MappedFile>(path);
    const std::span<const std::byte> bytes = mapping->bytes();
    const MappedFile* view = mapping.get();
    auto file = parse(std::move(mapping), bytes, path.string());
    std::const_pointer_cast<GgufFile>(file)->mapping_ = view;
    return file;
}

bool GgufFile::changedSinceOpened() const {
    return mapping_ != nullptr && mapping_->changed();
}

std::shared_ptr<const GgufFile> GgufFile::fromBuffer(std::vector<std::byte> bytes, std::string sourceName) {
    auto buffer = std::make_shared<const std::vector<std::byte>>(std::move(bytes));
    const std::span<const std::byte> view(buffer->data(), buffer->size());
    return parse(std::move(buffer), view, std::move(sourceName));
}

std::shared_ptr<const GgufFile> GgufFile::parse(std::shared_ptr<const void> storage,
                                                std::span<const std::byte> bytes, std::string source) {
    std::shared_ptr<GgufFile> file(new GgufFile());
    file->storage_ = std::move(storage);
    file->bytes_ = bytes;
    file->source_ = std::move(source);
    Parser(*file, file->source_).run();
    return file;
}

const GgufFile::MetadataEntry* GgufFile::find(std::string_view key) const {
    const auto it = metadataIndex_.find(key);
    return it == metadataIndex_.end() ? nullptr : &metadata_[it->second];
}

const GgufFile::MetadataEntry* GgufFile::findArray(std::string_view key) const {
    const MetadataEntry* entry = find(key);
    return entry != nullptr && entry->type == GgufValueType::Array ? entry : nullptr;
}

bool GgufFile::hasKey(std::string_view key) const {
    return find(key) != nullptr;
}

std::vector<std::string_view> GgufFile::keys() const {
    std::vector<std::string_view> result;
    result.reserve(metadata_.size());
    for (const MetadataEntry& entry : metadata_) {
        result.push_back(entry.key);
    }
    return result;
}

std::optional<GgufValueType> GgufFile::valueType(std::string_view key) const {
    const MetadataEntry* entry = find(key);
    return entry != nullptr ? std::optional(entry->type) : std::nullopt;
}

std::optional<GgufValueType> GgufFile::arrayElementType(std::string_view key) const {
    const MetadataEntry* entry = findArray(key);
    return entry != nullptr ? std::optional(entry->elementType) : std::nullopt;
}

std::optional<std::uint64_t> GgufFile::arrayLength(std::string_view key) const {
    const MetadataEntry* entry = findArray(key);
    return entry != nullptr ? std::optional(entry->count) : std::nullopt;
}

std::optional<std::string_view> GgufFile::getString(std::string_view key) const {
    const MetadataEntry* entry = find(key);
    if (entry == nullptr || entry->type != GgufValueType::String) {
        return std::nullopt;
    }
    return stringAt(bytes_, entry->valueOffset);
}

std::optional<std::int64_t> GgufFile::getInteger(std::string_view key) const {
    const MetadataEntry* entry = find(key);
    if (entry == nullptr) {
        return std::nullopt;
    }
    return integerAt(bytes_, entry->type, entry->valueOffset);
}

std::optional<double> GgufFile::getFloat(std::string_view key) const {
    const MetadataEntry* entry = find(key);
    if (entry == nullptr) {
        return std::nullopt;
    }
    if (entry->type == GgufValueType::Float32) {
        return loadAt<float>(bytes_, entry->valueOffset);
    }
    if (entry->type == GgufValueType::Float64) {
        return loadAt<double>(bytes_, entry->valueOffset);
    }
    return std::nullopt;
}

std::optional<bool> GgufFile::getBool(std::string_view key) const {
    const MetadataEntry* entry = find(key);
    if (entry == nullptr || entry->type != GgufValueType::Bool) {
        return std::nullopt;
    }
    return loadAt<std::uint8_t>(bytes_, entry->valueOffset) != 0;
}

std::optional<std::vector<std::string_view>> GgufFile::getStringArray(std::string_view key) const {
    const MetadataEntry* entry = findArray(key);
    if (entry == nullptr || entry->elementType != GgufValueType::String) {
        return std::nullopt;
    }
    std::vector<std::string_view> values;
    values.reserve(static_cast<std::size_t>(entry->count)); // validated against the file size
    std::size_t offset = entry->valueOffset;
    for (std::uint64_t i = 0; i < entry->count; ++i) {
        values.push_back(stringAt(bytes_, offset));
        offset += kStringHeaderBytes + values.back().size();
    }
    return values;
}

std::optional<std::vector<std::int64_t>> GgufFile::getIntegerArray(std::string_view key) const {
    const MetadataEntry* entry = findArray(key);
    if (entry == nullptr || !isGgufIntegerType(entry->elementType)) {
        return std::nullopt;
    }
    const std::size_t size = *ggufFixedValueSize(entry->elementType);
    std::vector<std::int64_t> values;
    values.reserve(static_cast<std::size_t>(entry->count));
    for (std::uint64_t i = 0; i < entry->count; ++i) {
        const std::optional<std::int64_t> value =
            integerAt(bytes_, entry->elementType, entry->valueOffset + static_cast<std::size_t>(i) * size);
        if (!value) {
            return std::nullopt;
        }
        values.push_back(*value);
    }
    return values;
}

std::optional<std::vector<float>> GgufFile::getFloatArray(std::string_view key) const {
    const MetadataEntry* entry = findArray(key);
    if (entry == nullptr ||
        (entry->elementType != GgufValueType::Float32 && entry->elementType != GgufValueType::Float64)) {
        return std::nullopt;
    }
    std::vector<float> values(static_cast<std::size_t>(entry->count));
    if (entry->elementType == GgufValueType::Float32) {
        if (!values.empty()) {
            std::memcpy(values.data(), bytes_.data() + entry->valueOffset, values.size() * sizeof(float));
        }
        return values;
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<float>(loadAt<double>(bytes_, entry->valueOffset + i * sizeof(double)));
    }
    return values;
}

const GgufTensorInfo* GgufFile::findTensor(std::string_view name) const {
    const auto it = tensorIndex_.find(name);
    return it == tensorIndex_.end() ? nullptr : &tensors_[it->second];
}

std::span<const std::byte> GgufFile::tensorBytes(const GgufTensorInfo& tensor) const {
    const std::uint64_t size = bytes_.size();
    if (dataOffset_ > size || tensor.offset > size - dataOffset_ ||
        tensor.byteSize > size - dataOffset_ - tensor.offset) {
        return {};
    }
    return bytes_.subspan(static_cast<std::size_t>(dataOffset_ + tensor.offset), tensor.byteSize);
}

} // namespace parlune::llm
