#include <string_view>

#include <gtest/gtest.h>

#include "tests/cluster/client_process.h"

int main(int argc, char** argv) {
    if (argc == 2 && std::string_view(argv[1]) == cluster_client::kClientOption) {
        cluster_client::obey();
        return 0;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
