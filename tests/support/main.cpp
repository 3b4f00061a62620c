#include "support/googletest.h"
#include "support/sanitizer_stack.h"

int main(int argc, char** argv) {
    veltra::test::announceStackToSanitizer();
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
