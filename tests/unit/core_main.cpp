#include "own_namespaces.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

class OwnNamespaces : public testing::Environment {
  void SetUp() override { enterOwnNamespaces(MIREL_BUILD_DIR); }
};

} // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::AddGlobalTestEnvironment(new OwnNamespaces);
  return RUN_ALL_TESTS();
}
