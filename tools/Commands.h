// The sub-commands of the `kestor` tool.
#pragma once

#include <vector>

namespace kestor::tool {

int RunDemo();
int RunErrors(const std::vector<long>& codes);

}  // namespace kestor::tool
