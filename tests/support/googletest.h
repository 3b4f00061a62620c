#pragma once

// GoogleTest and GoogleMock, for both builds of the tests. They choose their platform by _WIN32, which
// wineg++ defines as well although its programs run on the host's C library; so the macro is hidden from them
// there.

#ifdef __WINE__
#pragma push_macro("_WIN32")
#undef _WIN32
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#ifdef __WINE__
#pragma pop_macro("_WIN32")
#endif

namespace veltra::test {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

} // namespace veltra::test
