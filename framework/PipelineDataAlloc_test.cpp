// What reading events back from a queue block allocates. The counting
// operator new replaces the process's, hence an executable of its own.
#include <gtest/gtest.h>

#include <string>

#include "framework/PipelineData.h"
#include "util/InputStream.h"
#include "util/OutputStream.h"
#include "util/testing/CountingNew.h"

namespace {

// A serialised event holding only `raw`.
Str rawOnlyStream(const Str& raw) {
  NativeByteOrderOutputStream out(raw.size() + 64, 2);
  out.write_32(1);
  out.write(Str("_raw"));
  out.write(raw);
  out.write_32(0);
  out.write(Str("_raw"));
  return Str(std::string(reinterpret_cast<const char*>(out.data()), out.size()));
}

long allocationsToRead(const Str& stream, CowPipelineData* pd) {
  PipelineData* w = pd->writable();
  NativeByteOrderInputStream in(stream.data(), stream.size());
  const long before = testing_alloc::allocations();
  EXPECT_TRUE(w->ressurrect(in, false));
  return testing_alloc::allocations() - before;
}

TEST(PipelineDataAlloc, RawBytesComeFromThePoolsOnceWarm) {
  const struct {
    size_t size;
    long allocations;
  } kCases[] = {
      {0, 0}, {112, 0}, {300, 0}, {2033, 0}, {23170, 0}, {65536, 0},
      {65537, 2},  // oversize: a storage and its bytes, every time
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.size);
    const Str stream = rawOnlyStream(Str(std::string(c.size, 'x')));
    {
      CowPipelineData warm;
      allocationsToRead(stream, &warm);
    }
    CowPipelineData pd;
    EXPECT_EQ(allocationsToRead(stream, &pd), c.allocations);
    EXPECT_EQ(pd->rawSize(), c.size);
  }
}

TEST(PipelineDataAlloc, LinesCutFromABlockShareItsBytes) {
  const Str stream = rawOnlyStream("first line\nsecond line\n");
  CowPipelineData block;
  allocationsToRead(stream, &block);
  long before = testing_alloc::allocations();
  CowPipelineData a(block, 0, 10);
  CowPipelineData b(block, 11, 11);
  EXPECT_EQ(testing_alloc::allocations() - before, 2);  // the two records alone
  before = testing_alloc::allocations();
  a.appendAndReset(b);
  EXPECT_EQ(testing_alloc::allocations() - before, 0);
  EXPECT_EQ(Str(a->raw()), "first line\nsecond line");
}

}  // namespace
