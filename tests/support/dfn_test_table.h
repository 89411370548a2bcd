// The portable random DFN weight table of docs/dfn.md section 6, the same
// values training/dfn/weight_table.py's portable_random_table() produces, so
// that the twin's golden fixtures can be checked without committing a 6 MB
// table.
#pragma once

#include <vector>

namespace quelora::testing {

std::vector<float> portable_random_dfn_table();

} // namespace quelora::testing
