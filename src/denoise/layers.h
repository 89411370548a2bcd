// The DFN network's layers, for one frame at a time (batch 1).
// A layer is built once with its shape and pointers into the read-only weight
// table (docs/dfn.md section 1 gives the element order), allocates all of its
// scratch at construction and is then called once per hop: forward never
// allocates and never fails. Feature maps are channel-major
// [channel][time][frequency], frequency fastest. Construction checks shapes
// and throws quelora_exception with code -9990 and a message naming the check.
// Layers are used by one thread at a time (the participant's input thread).
#pragma once

#include "denoise/activations.h"
#include "denoise/batch_norm_layer.h"
#include "denoise/conv2d_layer.h"
#include "denoise/conv_transpose2d_layer.h"
#include "denoise/grouped_linear_layer.h"
#include "denoise/gru_layer.h"
