// The presenter shows a file: it puts it into its own cache, and the server takes it from there.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "node.h"

namespace {

class Presenter final : public Node {
public:
    Presenter(asio::io_context& loop, Cache& cache, const Options& options)
        : Node(loop, cache, options) {
        const std::filesystem::path path(options.file);
        const uint64_t length = std::filesystem::file_size(path);
        FMFileInfo info;
        CoCreateFMFileID(info.fileID);
        info.name = CRtString(path.filename().string());
        info.flag = FM_FILE_TEMPORARY; // this copy is of no use to a later run
        info.userValue = static_cast<uint32_t>(std::min<uint64_t>(length, FILE_LEN_MAX + 1));
        info.blockBeg = 1;
        Create(info);
        std::ifstream input(path, std::ios::binary);
        std::string bytes(BLOCK_LEN, '\0');
        for (; m_have < m_count; ++m_have) {
            const uint32_t id = m_have + 1;
            if (!input.read(bytes.data(), LengthOf(id)))
                throw std::runtime_error("cannot read " + options.file);
            const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes.data(), LengthOf(id));
            Must(GetBlock(id)->WriteData(LengthOf(id), 0, piece.get()), "cannot cache the file");
        }
    }

private:
    void OnSource(Link& link) override { SendFile(link); }

    void OnRoleFrame(Link&, Kind kind, CRtMessageBlock& body) override {
        Check(kind == Kind::OFFER, "a frame that a presenter does not take");
        TakeFile(body); // the server tells everybody
    }
};

} // namespace

std::unique_ptr<Node> MakePresenter(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Presenter>(loop, cache, options);
}
