// The presenter shows a file: it puts it into its own cache, and the server takes it from there.
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
        if (length == 0 || length > FILE_LEN_MAX)
            throw std::runtime_error(options.file + " has not 1 byte to 1 GiB");
        FMFileInfo info;
        CoCreateFMFileID(info.fileID);
        info.name = CRtString(path.filename().string());
        info.flag = FM_FILE_TEMPORARY; // this copy is of no use to a later run
        info.userValue = static_cast<uint32_t>(length);
        info.blockBeg = 1;
        Create(info);
        for (uint32_t id = 1; id <= m_count; ++id)
            OnLost(id);
    }

private:
    void OnLost(uint32_t id) override {
        std::string bytes(LengthOf(id), '\0');
        std::ifstream input(m_options.file, std::ios::binary);
        input.seekg(std::streamoff{id - 1} * BLOCK_LEN);
        if (!input.read(bytes.data(), std::ssize(bytes)))
            throw std::runtime_error("cannot read " + m_options.file);
        const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes.data(), LengthOf(id));
        Must(GetBlock(id)->WriteData(LengthOf(id), 0, piece.get()), "cannot cache the file");
        ++m_have;
    }

    void OnMember(Link& link) override { SendFile(link); }

    void OnRoleFrame(Link&, Kind kind, CRtMessageBlock& body) override {
        Check(kind == Kind::OFFER, "a frame that a presenter does not take");
        TakeFile(body); // the server tells everybody
    }
};

} // namespace

std::unique_ptr<Node> MakePresenter(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Presenter>(loop, cache, options);
}
