// Sets up the XML libraries once for a whole test program, the way main()
// does, by a gtest environment. Include it in exactly one test file of a
// program. Test code only.
#pragma once

#include <gtest/gtest.h>

#include <optional>

#include "util/ScopedXmlLibInit.h"

class XmlTestEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { _init.emplace(); }
  void TearDown() override { _init.reset(); }

 private:
  std::optional<ScopedXmlLibInit> _init;
};

inline const bool kXmlTestEnvironmentAdded =
    (::testing::AddGlobalTestEnvironment(new XmlTestEnvironment), true);
