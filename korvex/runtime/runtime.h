// SPDX-License-Identifier: Apache-2.0
// All that function bodies and their rows are written with.
#pragma once

#include "korvex/runtime/definitions.h"
#include "korvex/runtime/globals.h"
#include "korvex/runtime/launch.h"
#include "korvex/runtime/limb_results.h"
#include "korvex/runtime/messages.h"
#include "korvex/runtime/parameters.h"
#include "korvex/runtime/tensors.h"
