/// The product as it was at the start of the program: its variables stand in sections of their own, which
/// tests/CMakeLists.txt has objcopy name.
#pragma once

#include <vector>

/// Puts every variable of the product back. True when there are any to put back: false in a program that
/// is linked with the plain libraries.
bool reset_product();

/// The variables as they are now, and back to that.
std::vector<char> product_state();
void restore_product(const std::vector<char> &state);
