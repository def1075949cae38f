// main() of every test program: a fresh directory and, where the kernel allows it, a network namespace of its own, so
// that tests that need port 1883 or write files do not meet. Without namespaces they wait for each other.
#include "isolation.h"

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests))
        tarn::test::isolate_process();
    return RUN_ALL_TESTS();
}
