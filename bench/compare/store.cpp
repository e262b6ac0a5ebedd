#include "store.h"

#include <algorithm>

namespace bench {

bool Store::ReadMany(const std::vector<Place>&, size_t, const Visit&) { return false; }

void Store::SetOwner(Place place, uint32_t node, bool owns) {
    std::vector<uint32_t>& owners = m_owners[KeyOf(place)];
    std::erase(owners, node);
    if (owns)
        owners.push_back(node);
}

bool Store::HasOwner(Place place) { return !m_owners[KeyOf(place)].empty(); }

} // namespace bench
