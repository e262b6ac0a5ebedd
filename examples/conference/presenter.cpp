// The presenter offers a file: it reads the file into its own cache, and the server fetches it from there.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "node.h"

namespace {

constexpr std::chrono::milliseconds READ_TIME_MAX(5); ///< per tick

class Presenter final : public Node {
public:
    Presenter(asio::io_context& loop, Cache& cache, const Options& options)
        : Node(loop, cache, options), m_input(options.file, std::ios::binary) {
        const std::filesystem::path path(options.file);
        const uint64_t length = std::filesystem::file_size(path);
        FMFileInfo info;
        CoCreateFMFileID(info.fileID);
        info.name = CRtString(path.filename().string());
        info.flag = FM_FILE_TEMPORARY; // a later run does not need this copy
        info.userValue = static_cast<uint32_t>(std::min<uint64_t>(length, FILE_LEN_MAX + 1));
        info.blockBeg = 1;
        Create(info);
    }

private:
    // In steps, so that a large file does not stop the loop.
    void OnTick() override {
        const Clock::time_point end = Clock::now() + READ_TIME_MAX;
        for (std::string bytes(BLOCK_LEN, '\0'); m_have < m_count && Clock::now() < end; ++m_have) {
            const uint32_t id = m_have + 1;
            if (!m_input.read(bytes.data(), LengthOf(id)))
                throw std::runtime_error("cannot read " + m_options.file);
            const CRtMessageChain piece = CRtMessageBlock::Wrap(bytes.data(), LengthOf(id));
            ThrowIfFailed(GetBlock(id)->WriteData(LengthOf(id), 0, piece.get()),
                          "WriteData failed");
        }
    }

    bool IsReady() const override { return m_have == m_count; }
    void OnSource(Link& link) override { SendFile(link); }

    void OnRoleFrame(Link&, Kind kind, CRtMessageBlock& body) override {
        Check(kind == Kind::OFFER, "frame kind that a presenter does not accept");
        AcceptFile(body); // the server announces the file to every node
    }

    std::ifstream m_input;
};

} // namespace

std::unique_ptr<Node> MakePresenter(asio::io_context& loop, Cache& cache, const Options& options) {
    return std::make_unique<Presenter>(loop, cache, options);
}
