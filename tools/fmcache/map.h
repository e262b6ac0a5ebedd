// A picture of which blocks of a file are there.
#pragma once

#include <string>

#include "check.h"

struct MapStyle {
    unsigned width = 80; ///< columns
    bool colour = false;
};

/// Lines of cells, each for one block or for several that follow one another, and a legend. Empty for a
/// file without blocks.
std::string DrawMap(const InfoFile& file, const Check& check, const MapStyle& style);
