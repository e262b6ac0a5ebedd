#include "store.h"

#include <algorithm>
#include <thread>

namespace bench {

bool Store::ReadMany(const std::vector<Place>&, size_t, const Visit&) { return false; }

void Store::BeginRead(Place place, uint32_t length, const Done& done) {
    done(Read(place, 0, length));
}

void Store::WaitUntil(Clock::time_point time) { std::this_thread::sleep_until(time); }

void Store::SetOwner(Place place, uint32_t node, bool owns) {
    std::vector<uint32_t>& owners = m_owners[KeyOf(place)];
    std::erase(owners, node);
    if (owns)
        owners.push_back(node);
}

bool Store::HasOwner(Place place) { return !m_owners[KeyOf(place)].empty(); }

} // namespace bench
