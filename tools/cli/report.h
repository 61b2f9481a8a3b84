// What `nodara info` and `nodara demo` tell about a mesh.
#ifndef NODARA_TOOLS_CLI_REPORT_H
#define NODARA_TOOLS_CLI_REPORT_H

#include "mesh.h"

#include <cstdio>
#include <vector>

namespace nodara_cli {

struct block_summary {
    zq5::nodara::element_type type = zq5::nodara::EL_NONE;
    std::size_t elements = 0;
    bool topology = false;        // false: the neighbour search does not take this kind
    std::size_t pieces = 0;       // connected pieces (through shared sides or faces)
    std::size_t skin = 0;         // sides or faces on the boundary
    std::size_t nonmanifold = 0;  // element sides or faces shared by more than two elements
    std::size_t edges = 0;        // distinct edges
    std::size_t nodes_used = 0;
};

struct summary {
    std::size_t nodes = 0;
    std::size_t dimension = 0;
    double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
    std::size_t duplicate_nodes = 0;  // nodes at exactly the place of an earlier node
    std::vector<block_summary> blocks;
};

/// Fills `s`; false with `why` when a library call fails.
bool summarize(const mesh& m, summary& s, failure& why);

/// Prints the summary, one fact per line.
void print_summary(std::FILE* out, const summary& s);

}  // namespace nodara_cli

#endif  // NODARA_TOOLS_CLI_REPORT_H
