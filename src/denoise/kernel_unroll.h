// QUELORA_UNROLL: fully unrolls the loop it precedes. Every loop of a vector
// kernel over a tile's rows or vectors carries it: left to itself, GCC 12 at
// -O3 keeps such accumulator arrays in memory and stores all of them on every
// step of the inner dimension, which ran the convolution tiles at a third to
// a half of their speed.
#pragma once

#if defined(__clang__)
#define QUELORA_UNROLL _Pragma("unroll")
#else
#define QUELORA_UNROLL _Pragma("GCC unroll 32")
#endif
