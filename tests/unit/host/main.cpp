#include <gtest/gtest.h>

#include "platform/host/InitCode.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    InitCode::runInitialisers();
    return RUN_ALL_TESTS();
}
