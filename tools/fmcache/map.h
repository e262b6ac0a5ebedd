// A map of the stored, missing and damaged blocks of a file.
#pragma once

#include <string>

#include "FMCatalog.h"

struct MapStyle {
    unsigned width = 80; ///< columns
    bool colour = false;
};

/// One character for each cell, at most `most` cells: '#' stored, '.' missing, '+' some of the blocks stored,
/// '!' damaged.
std::string MapCells(const FMCachedFile& file, size_t most);

/// Returns lines of cells, each for one or several consecutive blocks, and a legend. Empty if the file has no
/// blocks.
std::string DrawMap(const FMCachedFile& file, const MapStyle& style);
