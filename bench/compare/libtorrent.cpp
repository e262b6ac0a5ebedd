// libtorrent's disk layer without a session. posix_disk_io reads large blocks faster; mmap_disk_io stores
// blocks below 16 KiB faster, so these use it. One disk thread is fastest on two cores. The file pool is large
// enough for all files. Each file is a torrent, each block a torrent piece, and one request transfers at most
// 16 KiB.
#include <libtorrent/aux_/vector.hpp>
#include <libtorrent/disk_buffer_holder.hpp>
#include <libtorrent/disk_interface.hpp>
#include <libtorrent/file_storage.hpp>
#include <libtorrent/io_context.hpp>
#include <libtorrent/mmap_disk_io.hpp>
#include <libtorrent/peer_request.hpp>
#include <libtorrent/performance_counters.hpp>
#include <libtorrent/posix_disk_io.hpp>
#include <libtorrent/settings_pack.hpp>
#include <libtorrent/storage_defs.hpp>

#include <cstring>
#include <limits>
#include <string>

#include "../common.h"
#include "store.h"

namespace bench {

const bool keepsFreedPages = true;

namespace {

constexpr uint32_t REQUEST_LEN = 16 * 1024;

class Libtorrent final : public Store {
public:
    void Open(const std::filesystem::path& dir, const Layout& layout) override {
        m_dir = dir.string();
        m_layout = layout;
        m_read.resize(layout.blockLen);
        m_settings.set_int(lt::settings_pack::aio_threads, 1);
        m_settings.set_int(lt::settings_pack::hashing_threads, 1);
        m_settings.set_int(lt::settings_pack::file_pool_size, static_cast<int>(layout.files + 8));
        m_settings.set_int(lt::settings_pack::max_queued_disk_bytes,
                           std::numeric_limits<int>::max());
        m_disk = layout.blockLen < REQUEST_LEN
                     ? lt::mmap_disk_io_constructor(m_context, m_settings, m_counters)
                     : lt::posix_disk_io_constructor(m_context, m_settings, m_counters);
        m_files.resize(layout.files);
    }
    void Close() override {
        Flush();
        m_files.clear();
        m_disk->abort(true);
        RunAll();
        m_disk.reset();
    }

    void Write(Place place, uint32_t at, const char* bytes, uint32_t length) override {
        const lt::storage_index_t storage = OpenFile(place.file);
        ++m_inFlight;
        m_disk->async_write(storage, RequestFor(place, at, length), bytes, nullptr,
                            [this](const lt::storage_error& error) { End(error); });
        constexpr size_t longQueue = 1024;
        if (at + length < m_layout.blockLen)
            return;
        m_disk->submit_jobs();
        RunUntil(longQueue); // with a longer queue, each job costs more
    }
    void Flush() override {
        m_disk->submit_jobs();
        RunAll();
    }

    const char* Read(Place place, uint32_t at, uint32_t length) override {
        Post(place, at, length, m_read.data(), [] {});
        m_disk->submit_jobs();
        RunAll();
        return m_read.data();
    }
    bool ReadMany(const std::vector<Place>& places, size_t window, const Visit& visit) override {
        std::vector<std::vector<char>> buffers(window, std::vector<char>(m_layout.blockLen));
        size_t asked = 0;
        const std::function<void(char*)> askNext = [&](char* buffer) {
            if (asked == places.size())
                return;
            const Place place = places[asked++];
            auto left = std::make_shared<uint32_t>(m_layout.blockLen / REQUEST_LEN);
            Post(place, 0, m_layout.blockLen, buffer, [&, place, buffer, left] {
                if (--*left > 0)
                    return;
                visit(place, buffer);
                askNext(buffer);
                m_disk->submit_jobs();
            });
        };
        for (std::vector<char>& buffer : buffers)
            askNext(buffer.data());
        m_disk->submit_jobs();
        RunAll();
        return true;
    }
    void BeginRead(Place place, uint32_t length, const Done& done) override {
        const auto buffer = std::make_shared<std::vector<char>>(length);
        const auto left = std::make_shared<uint32_t>(length / REQUEST_LEN);
        Post(place, 0, length, buffer->data(), [buffer, left, done] {
            if (--*left == 0)
                done(buffer->data());
        });
        m_disk->submit_jobs();
    }
    void WaitUntil(Clock::time_point time) override {
        m_context.restart();
        m_context.poll();
        while (m_inFlight > 0 && Clock::now() < time) {
            m_context.restart();
            const auto work = boost::asio::make_work_guard(m_context);
            m_context.run_one_until(time);
        }
        Store::WaitUntil(time);
    }
    void Release() override {
        Close();
        Open(m_dir, m_layout);
    }
    void CloseFile(uint32_t file) override {
        ++m_inFlight;
        m_disk->async_release_files(m_files[file].storage, [this] { --m_inFlight; });
        m_disk->submit_jobs();
        RunAll();
        m_files[file] = {};
    }

private:
    struct File {
        std::unique_ptr<lt::file_storage> layout; // libtorrent keeps a reference to it
        lt::storage_holder storage;
    };

    lt::storage_index_t OpenFile(uint32_t index) {
        File& file = m_files[index];
        if (file.layout)
            return file.storage;
        file.layout = std::make_unique<lt::file_storage>();
        file.layout->set_piece_length(static_cast<int>(m_layout.blockLen));
        file.layout->add_file(std::to_string(index), int64_t{m_layout.blocks} * m_layout.blockLen);
        file.layout->set_num_pieces(static_cast<int>(m_layout.blocks));
        lt::sha1_hash name;
        std::memcpy(name.data(), &index, sizeof(index));
        file.storage = m_disk->new_torrent(
            {*file.layout, nullptr, m_dir, lt::storage_mode_sparse, m_priorities, name}, nullptr);
        return file.storage;
    }
    static lt::peer_request RequestFor(Place place, uint32_t at, uint32_t length) {
        return {lt::piece_index_t(static_cast<int>(place.block)), static_cast<int>(at),
                static_cast<int>(length)};
    }
    template <class Done>
    void Post(Place place, uint32_t at, uint32_t length, char* target, Done done) {
        const lt::storage_index_t storage = OpenFile(place.file);
        for (uint32_t from = 0; from < length; from += REQUEST_LEN) {
            const uint32_t part = std::min(REQUEST_LEN, length - from);
            ++m_inFlight;
            m_disk->async_read(
                storage, RequestFor(place, at + from, part),
                [this, to = target + from, part, done](const lt::disk_buffer_holder& buffer,
                                                       const lt::storage_error& error) {
                    if (!error)
                        std::memcpy(to, buffer.data(), part);
                    End(error);
                    done();
                });
        }
    }
    void End(const lt::storage_error& error) {
        Require(!error, error.ec.message().c_str());
        --m_inFlight;
    }
    void RunAll() { RunUntil(0); }
    void RunUntil(size_t left) {
        while (m_inFlight > left) {
            m_context.restart();
            const auto work = boost::asio::make_work_guard(m_context);
            m_context.run_one();
        }
    }

    std::string m_dir;
    Layout m_layout;
    lt::io_context m_context;
    lt::settings_pack m_settings;
    lt::counters m_counters;
    lt::aux::vector<lt::download_priority_t, lt::file_index_t> m_priorities;
    std::unique_ptr<lt::disk_interface> m_disk;
    std::vector<File> m_files;
    size_t m_inFlight = 0;
    std::vector<char> m_read;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<Libtorrent>(); }

} // namespace bench
