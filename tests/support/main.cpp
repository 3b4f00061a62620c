#include "support/googletest.h"
#include "support/sanitizer_stack.h"

int main(int argc, char** argv) {
    veltra::test::announceStackToSanitizer();
    testing::InitGoogleMock(&argc, argv);
    const int result = RUN_ALL_TESTS();
    veltra::test::lookForLeaks();
    return result;
}
