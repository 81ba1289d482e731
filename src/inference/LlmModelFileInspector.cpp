#include "inference/LlmModelFileInspector.h"

#include "inference/ModelLocator.h"
#include "llm/gguf/GgufFile.h"
#include "llm/tensor/GgmlType.h"

#include <QFile>

#include <algorithm>
#include <exception>
#include <map>

namespace parlune {

namespace {

// general.file_type: the quantisation mix the file was made with, by its numeric id.
QString fileTypeName(std::int64_t id) {
    static const std::map<std::int64_t, const char*> names{
        {0, "F32"},     {1, "F16"},     {2, "Q4_0"},     {3, "Q4_1"},    {7, "Q8_0"},     {8, "Q5_0"},
        {9, "Q5_1"},    {10, "Q2_K"},   {11, "Q3_K_S"},  {12, "Q3_K_M"}, {13, "Q3_K_L"},  {14, "Q4_K_S"},
        {15, "Q4_K_M"}, {16, "Q5_K_S"}, {17, "Q5_K_M"},  {18, "Q6_K"},   {19, "IQ2_XXS"}, {20, "IQ2_XS"},
        {21, "Q2_K_S"}, {22, "IQ3_XS"}, {23, "IQ3_XXS"}, {24, "IQ1_S"},  {25, "IQ4_NL"},  {26, "IQ3_S"},
        {27, "IQ3_M"},  {28, "IQ2_S"},  {29, "IQ2_M"},   {30, "IQ4_XS"}, {31, "IQ1_M"},   {32, "BF16"},
    };
    const auto found = names.find(id);
    return found == names.end() ? QString() : QString::fromLatin1(found->second);
}

// The element type holding most of the bytes, for files that do not state their mix.
QString dominantTensorType(const llm::GgufFile& file) {
    std::map<llm::GgmlType, std::size_t> bytesByType;
    for (const llm::GgufTensorInfo& tensor : file.tensors()) {
        bytesByType[tensor.type] += tensor.byteSize;
    }
    const auto largest = std::max_element(bytesByType.begin(), bytesByType.end(),
                                          [](const auto& a, const auto& b) { return a.second < b.second; });
    if (largest == bytesByType.end()) {
        return {};
    }
    return QString::fromUtf8(llm::ggmlTypeTraits(largest->first).name.data(),
                             static_cast<qsizetype>(llm::ggmlTypeTraits(largest->first).name.size()));
}

QString unsupportedWeightType(const llm::GgufFile& file) {
    for (const llm::GgufTensorInfo& tensor : file.tensors()) {
        if (!llm::isSupportedWeightType(tensor.type)) {
            const std::string_view name = llm::ggmlTypeTraits(tensor.type).name;
            return QStringLiteral("weight type %1 is not supported yet")
                .arg(QString::fromUtf8(name.data(), static_cast<qsizetype>(name.size())));
        }
    }
    return {};
}

} // namespace

ModelFileFacts LlmModelFileInspector::inspect(const QString& path) const {
    const std::filesystem::path filePath(QFile::encodeName(path).toStdString());
    const ModelFileReport report = ModelLocator::inspect(filePath, ModelFileReport::Source::modelsFolder);
    ModelFileFacts facts;
    facts.problem = QString::fromStdString(report.problem);
    try {
        const auto file = llm::GgufFile::open(filePath);
        if (const auto name = file->getString("general.name")) {
            facts.name = QString::fromUtf8(name->data(), static_cast<qsizetype>(name->size())).trimmed();
        }
        if (const auto architecture = file->getString("general.architecture")) {
            facts.architecture =
                QString::fromUtf8(architecture->data(), static_cast<qsizetype>(architecture->size()));
            facts.contextLength =
                file->getInteger(std::string(*architecture) + ".context_length").value_or(0);
        }
        facts.hasChatTemplate = file->getString("tokenizer.chat_template").has_value();
        if (const auto fileType = file->getInteger("general.file_type")) {
            facts.weightType = fileTypeName(*fileType);
        }
        if (facts.weightType.isEmpty()) {
            facts.weightType = dominantTensorType(*file);
        }
        if (facts.problem.isEmpty()) {
            facts.problem = unsupportedWeightType(*file);
        }
    } catch (const std::exception&) {
        // The locator's report already names why the file cannot be read.
    }
    return facts;
}

} // namespace parlune
