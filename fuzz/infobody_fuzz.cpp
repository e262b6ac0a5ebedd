// Decodes arbitrary bytes as the two bodies of an information file: the memory is bounded by the input length,
// and a body that was decoded completely encodes to the same bytes.
#include <string>

#include "FMInfoCodec.h"
#include "RtLog.h"
#include "RtResult.h"
#include "testing/require.h"

namespace {

void CheckEncoded(CRtMessageBlock& encoded, const std::string& bytes) {
    Require(bytes.starts_with(encoded.FlattenChained().view()));
}

void CheckFileBody(const std::string& bytes) {
    const auto size = static_cast<uint32_t>(bytes.size());
    const CRtMessageChain chain = CRtMessageBlock::Wrap(bytes.data(), size);
    FMFileInfo info;
    uint32_t createTime = 0;
    if (RT_FAILED(FMDecodeFileBody(*chain, info, createTime)) ||
        size < FM_INFO_FILE_BODY_FIXED + info.name.size()) // no creation time
        return;
    CRtMessageChain again;
    Require(RT_SUCCEEDED(FMEncodeFileBody(info, createTime, again)));
    CheckEncoded(*again, bytes);
}

void CheckBlockBody(const std::string& bytes) {
    const auto size = static_cast<uint32_t>(bytes.size());
    const CRtMessageChain chain = CRtMessageBlock::Wrap(bytes.data(), size);
    std::vector<FMBlockEntry> slots;
    const bool isWhole = FMDecodeBlockBody(*chain, slots);
    Require(slots.capacity() <= size / 2 + 1); // an empty entry has 4 bytes
    if (!isWhole)
        return;
    CRtMessageChain again;
    uint32_t left = 0;
    Require(RT_SUCCEEDED(FMEncodeBlockBody(slots, again, left)));
    if (left == 0)
        CheckEncoded(*again, bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RtSetLogSink(nullptr, nullptr, RT_LOG_SILENT);
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    CheckFileBody(bytes);
    CheckBlockBody(bytes);
    return 0;
}
