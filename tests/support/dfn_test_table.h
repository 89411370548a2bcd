// The portable random DFN weight table that docs/dfn.md defines:
// the values training/dfn/weight_table.py's portable_random_table() gives, so
// that the twin's golden fixtures are checked without committing a 6 MB table.
#pragma once

namespace quelora::testing {
const float* portable_random_dfn_table(); // built on the first call, kept for the process
} // namespace quelora::testing
