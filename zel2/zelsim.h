// SPDX-License-Identifier: Apache-2.0
// The whole public interface of libzelsim.
#ifndef ZEL2_ZELSIM_H
#define ZEL2_ZELSIM_H

#include "zel2/2in1Wrapper.h"
#include "zel2/Config.h"
#include "zel2/CubeDriver.h"
#include "zel2/IniReader.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_atomics_extension.h"
#include "zel2/zel2_cube.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_utils.h"

#endif  // ZEL2_ZELSIM_H
