#ifndef ZQ5_NODARA_TOPOLOGY_H
#define ZQ5_NODARA_TOPOLOGY_H

#include <zq5/nodara/core.h>

#endif  // ZQ5_NODARA_TOPOLOGY_H
