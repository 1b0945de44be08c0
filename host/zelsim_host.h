// SPDX-License-Identifier: Apache-2.0
// The whole public API of the host library, libzelsim-host (docs/host.md):
// CubeHost, the TLM-2.0 target and its checker, the generators and trace
// reader, and the statistics. It includes the model library's API too.
#ifndef ZELSIM_HOST_ZELSIM_HOST_H
#define ZELSIM_HOST_ZELSIM_HOST_H

#include "host/backing_store.h"
#include "host/bandwidth.h"
#include "host/cube_host.h"
#include "host/generator.h"
#include "host/latency.h"
#include "host/legal_host.h"
#include "host/protocol_checker.h"
#include "host/results.h"
#include "host/timeline.h"
#include "host/tlm_target.h"
#include "zel2/zelsim.h"

#endif  // ZELSIM_HOST_ZELSIM_HOST_H
