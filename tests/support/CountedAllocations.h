#pragma once

namespace test_support {

/// How often this program has called operator new, in any thread. Linking it replaces the global
/// operators.
int countedAllocations();

} // namespace test_support
