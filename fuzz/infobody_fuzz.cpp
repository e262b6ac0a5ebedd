// Decodes arbitrary bytes as the two bodies of an information file: the memory is bounded by the input length,
// and a body that was decoded completely encodes to the same bytes.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "FMInfoCodec.h"
#include "RtLog.h"
#include "RtResult.h"

namespace {

void Require(bool condition) {
    if (!condition)
        std::abort();
}

void FileBody(const char* bytes, uint32_t size) {
    const CRtMessageChain chain = CRtMessageBlock::Wrap(bytes, size);
    FMFileInfo info;
    uint32_t createTime = 0;
    if (RT_FAILED(FMDecodeFileBody(*chain, info, createTime)) || size < 38 + info.name.size())
        return;
    CRtMessageChain again;
    Require(RT_SUCCEEDED(FMEncodeFileBody(info, createTime, again)));
    const CRtString encoded = again->FlattenChained();
    Require(encoded.view() == std::string_view(bytes, encoded.size()));
}

void BlockBody(const char* bytes, uint32_t size) {
    const CRtMessageChain chain = CRtMessageBlock::Wrap(bytes, size);
    std::vector<FMBlockEntry> slots;
    const bool whole = FMDecodeBlockBody(*chain, slots);
    Require(slots.size() <= size / 4 + 1);
    if (!whole)
        return;
    CRtMessageChain again;
    uint32_t left = 0;
    Require(RT_SUCCEEDED(FMEncodeBlockBody(slots, again, left)));
    const CRtString encoded = again->FlattenChained();
    Require(left > 0 || encoded.view() == std::string_view(bytes, encoded.size()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
    std::string bytes(reinterpret_cast<const char*>(data), size);
    FileBody(bytes.data(), static_cast<uint32_t>(size));
    // Tens of thousands of missing entries are slow and find no more faults than hundreds.
    if (size > 2 && size % 32 != 0)
        bytes[1] = '\0';
    BlockBody(bytes.data(), static_cast<uint32_t>(size));
    return 0;
}
