// Whole-mesh checker: reads public records only and shares no code with the library, so that a
// fault in the library's idea of a whole mesh cannot hide behind itself.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velmar_2d::tests {

/// Every way in which the current mesh, joined or split, is not whole; one line each, the first
/// few dozen at most. Empty for a whole mesh and where there is none.
std::vector<std::string> find_faults();

/// The findings as one assertion: EXPECT_TRUE(mesh_is_whole()).
testing::AssertionResult mesh_is_whole();

}  // namespace velmar_2d::tests
