#ifndef ZQ5_NODARA_EDITING_H
#define ZQ5_NODARA_EDITING_H

#include <zq5/nodara/core.h>

#endif  // ZQ5_NODARA_EDITING_H
