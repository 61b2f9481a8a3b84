// nodara: inspect, repair, transform, measure and exchange unstructured meshes.
//
// The umbrella header: brings in every public declaration of the library.
#ifndef ZQ5_NODARA_H
#define ZQ5_NODARA_H

#include <zq5/arrays.h>
#include <zq5/histogram.h>
#include <zq5/nodara/core.h>
#include <zq5/nodara/editing.h>
#include <zq5/nodara/io.h>
#include <zq5/nodara/topology.h>

#endif  // ZQ5_NODARA_H
