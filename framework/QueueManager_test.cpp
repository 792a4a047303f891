// Queue sizes and writers from a real "server" configuration, made in a
// temporary install root before anything reads it; hence an executable of
// its own.
#include "framework/QueueManager.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "framework/PersistentQueue.h"
#include "framework/PersistentQueueConfig.h"
#include "framework/ProducerConsumerQueue.h"
#include "framework/testing/QueueTestEvents.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/testing/DefaultRootEnvironment.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/ConditionWaitTimeout.h"
#include "util/testing/LogCapture.h"

namespace {

const char* const kServer =
    "[queue]\n"
    "maxSize = 2MB\n"
    "[queue=units]\n"
    "maxSize = 1000\n"
    "[queue=typed]\n"
    "maxSize = 10KB\n"
    "[queue=bad]\n"
    "maxSize = lots\n"
    "[persistentQueue:pqa]\n"
    "queueSize = 100KB\n"
    "persistentQueueSize = 1MB\n"
    "[persistentQueue:nofile]\n"
    "queueSize = 7KB\n"
    "[persistentQueue:badsizes]\n"
    "queueSize = huge\n"
    "persistentQueueSize = 1.5GB\n";

const auto* const gRoot = ::testing::AddGlobalTestEnvironment(
    new DefaultRootEnvironment({{"system/default/server.conf", kServer}}));

TEST(QueueManager, SizeValuesCountUnitsOf512OrCarryAUnit) {
  const struct {
    const char* text;
    bool ok;
    uint64_t bytes;
  } kCases[] = {
      {"1000", true, 512000},
      {"1", true, 512},
      {"0", true, 0},
      {"99999999999999999999", true, 512000},  // too big a number: the fallback
      {"10KB", true, 10240},
      {"3M", true, 3u << 20},
      {"lots", false, 0},
      {"-5", false, 0},
  };
  for (const auto& c : kCases) {
    uint64_t out = 0;
    EXPECT_EQ(c.ok, parseQueueSizeValue(c.text, &out)) << c.text;
    if (c.ok) {
      EXPECT_EQ(c.bytes, out) << c.text;
    }
  }
}

TEST(QueueManager, QueueSizesComeFromTheirStanzaOrTheDefault) {
  ScopedLogCapture log("QueueManager");
  QueueManager& m = QueueManager::instance();
  EXPECT_EQ(2u << 20, m.defaultQueueSize());
  const struct {
    const char* name;
    uint64_t bytes;
  } kCases[] = {{"units", 512000}, {"typed", 10240}, {"bad", 2u << 20}, {"absent", 2u << 20}};
  for (const auto& c : kCases) EXPECT_EQ(c.bytes, m.getQueueSize(c.name)) << c.name;
  EXPECT_NE(std::string::npos,
            log.text().find("WARN Could not parse queue configuration for bad. maxSize=lots. "
                            "Please specify in form d+(K|M|G|T)B"));
  EXPECT_NE(std::string::npos, log.text().find("DEBUG using maxSize=10KB for queue=typed"));
}

TEST(QueueManager, QueuesAreSharedByNameUntilShutDown) {
  QueueManager& m = QueueManager::instance();
  ProducerConsumerQueue* q = m.getQueue("typed");
  EXPECT_EQ(q, m.getQueue("typed"));
  EXPECT_TRUE(PersistentQueueManager::getInstance().exists("typed"));
  CowPipelineData e = makeQueueEvent("through");
  ASSERT_TRUE(q->insertAndClear(e, ConditionWaitTimeout(1, 0)));
  EXPECT_EQ(1u, q->getSize());
  CowPipelineData out;
  ASSERT_TRUE(q->remove(out, ConditionWaitTimeout(1, 0)));
  EXPECT_EQ("through", rawOf(out));
  m.shutdown("typed");
  EXPECT_FALSE(PersistentQueueManager::getInstance().exists("typed"));
  EXPECT_NE(q, nullptr);
}

TEST(PersistentQueueConfig, InputSettingsChooseTheWriter) {
  const Pathname dir = persistentQueueDirectory();
  const struct {
    const char* queue;
    const char* input;
    std::vector<std::pair<const char*, const char*>> props;
    bool persistent;
    uint64_t memory, file;
    const char* writer;
  } kCases[] = {
      {"units", "in", {}, false, 512000, 0, ""},
      {"typed", "in", {}, false, 10240, 0, ""},
      {"nostanza", "in", {}, false, 512000, 0, ""},
      {"units", "in", {{"queueSize", "64KB"}}, false, 65536, 0, ""},
      {"units", "in", {{"queueSize", "junk"}}, false, 0, 0, ""},
      {"units", "in", {{"persistentQueue", "pqa"}}, true, 100u << 10, 1u << 20, "pqa"},
      {"units", "in", {{"persistentQueue", "nofile"}}, false, 7u << 10, 0, "nofile"},
      {"units", "in", {{"persistentQueue", "badsizes"}}, true, 512000, 512000, "badsizes"},
      {"units", "tcp://10.1.2.3:514", {{"persistentQueueSize", "2MB"}, {"queueSize", "1KB"}},
       true, 1024, 2u << 20, "pq_tcp___10_1_2_3_514"},
      {"units", "C:\\logs\\a.log", {{"persistentQueueSize", "4000"}}, true, 512000,
       4000u << 9, "pq_C__logs_a_log"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.input + std::string(" ") + (c.props.empty() ? "" : c.props[0].second));
    PropertiesMap props;
    for (const auto& kv : c.props) props.put(kv.first, kv.second);
    PersistentQueue q(c.queue);
    PersistentQueueConfig conf(&q, "server", c.queue, c.input, props);
    EXPECT_EQ(c.persistent, conf.isPersistent());
    EXPECT_EQ(c.memory, conf.sizeInMemory());
    EXPECT_EQ(c.file, conf.persistentFileSize());
    EXPECT_EQ(c.writer, conf.writerName());
    if (c.persistent) {
      EXPECT_EQ(dir / c.queue / c.writer, conf.path());
    }
  }
}

TEST(PersistentQueueConfig, MisconfiguredSizesWarn) {
  ScopedLogCapture log("PersistentQueueConfig");
  EXPECT_EQ(0u, PersistentQueueConfig::parseSize("12 parsecs"));
  uint64_t size = 1, file = 1;
  PersistentQueueConfig::getWriterQueueSizeFromName("server", "nofile", &size, &file);
  EXPECT_EQ(0u, file);
  const std::string text = log.text();
  EXPECT_NE(std::string::npos, text.find("WARN Could not parse persistent queue configuration. "
                                         "size=12 parsecs. Please specify in form "
                                         "d+(K|M|G|T)B"));
  EXPECT_NE(std::string::npos, text.find("WARN persistentQueueSize not defined for "
                                         "queue=nofile in server. Will not use persistent "
                                         "queue"));
}

TEST(PersistentQueueConfig, PersistentWriterKeepsItsFileUnderTheInstallRoot) {
  PropertiesMap props;
  props.put("persistentQueue", "pqa");
  PersistentQueue q("files");
  PersistentQueueConfig conf(&q, "server", "files", "in", props);
  QueueWriter* w = conf.getWriter();
  EXPECT_EQ(w, conf.getWriter());
  CowPipelineData e = makeQueueEvent("kept");
  ASSERT_TRUE(w->insertAndClear(e, ConditionWaitTimeout(1, 0)));
  q.shutdown();  // memory goes to the file
  const Pathname path = persistentQueueDirectory() / "files" / "pqa";
  EXPECT_EQ(path, conf.path());
  EXPECT_TRUE(path.exists());
  PersistentQueue again("files");
  QueueWriter* w2 = PersistentQueueConfig(&again, "server", "files", "in", props).getWriter();
  EXPECT_EQ(1u, w2->getSize());
}

}  // namespace
