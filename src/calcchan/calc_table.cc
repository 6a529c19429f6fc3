#include "calcchan/calc_table.h"

#include <algorithm>

namespace tavrix {

bool IsCalcChannelType(std::string_view type) {
  return std::find(kCalcChannelTypes.begin(), kCalcChannelTypes.end(), type) !=
         kCalcChannelTypes.end();
}

}  // namespace tavrix
