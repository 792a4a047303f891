#include <sys/utsname.h>

#include <gtest/gtest.h>

#include <cstring>

#include "framework/PipelineData.h"
#include "framework/ServerConfig.h"
#include "libbundle/PropertiesMap.h"
#include "util/Timeval.h"

namespace {

// The machine's name by another road than the one ServerConfig takes.
Str nodeName() {
  struct utsname u;
  if (uname(&u) != 0 || u.nodename[0] == '\0') return Str("localhost");
  return Str(u.nodename);
}

Str piece(const CowPipelineData& pd, const PipelineData::special_key_chanpiece& key) {
  Str out;
  return pd->get_chan_piece_asstr(key, &out) ? out : Str("<absent>");
}

Str value(const CowPipelineData& pd, const char* name) {
  Str scratch;
  const Str* v = pd->internal_get(name, std::strlen(name), djb2_hash(name), &scratch);
  return v != nullptr ? *v : Str("<absent>");
}

TEST(PipelineDataLoad, PathKeepsWhatFollowsTheSchemeBehindOneSlash) {
  const struct {
    const char* path;
    const char* stored;  // null: nothing loaded at all
  } kCases[] = {
      {"monitor:///var/log/", "/var/log"},
      {"monitor:///var/log", "/var/log"},
      {"monitor:///var/log///", "/var/log"},
      {"tcp://9997", "/9997"},
      {"tcp::9997", "/9997"},
      {"udp:514", "/514"},
      {"script::://a//b//", "/a//b"},  // runs of ":" and "/" both skipped
      {"monitor://x", "/"},            // a one-character remainder is dropped
      {"monitor://x///", "/"},
      {"monitor://xy", "/xy"},
      {"monitor://", "/"},
      {"a:b:c", "/b:c"},               // only the first run of ":" counts
      {"/var/log", nullptr},
      {"", nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.path);
    CowPipelineData pd;
    pd.writable()->load(nullptr, Str(c.path));
    if (c.stored == nullptr) {
      EXPECT_EQ(pd->flags(), 0u);
      EXPECT_TRUE(pd->contentMap().empty());
      EXPECT_FALSE(pd->channel().hasConf());
    } else {
      EXPECT_EQ(pd->get(PipelineData::_pathKey), c.stored);
      EXPECT_EQ(piece(pd, PipelineData::__inmap_host), "host::" + nodeName());
    }
  }
}

TEST(PipelineDataLoad, DisabledInputLoadsNothing) {
  PropertiesMap props;
  props.put("index", "main");
  props.setDisabled(true);
  CowPipelineData pd;
  pd.writable()->load(&props, Str("monitor:///var/log"));
  EXPECT_TRUE(pd->contentMap().empty());
  EXPECT_FALSE(pd->channel().hasConf());
  props.setDisabled(false);
  pd.writable()->load(&props, Str("monitor:///var/log"));
  EXPECT_EQ(pd->get(PipelineData::_indexKey), "main");
  EXPECT_EQ(pd->get(PipelineData::_pathKey), "/var/log");
}

TEST(PipelineDataLoad, SettingsFillTheChannelAndTheMap) {
  PropertiesMap props;
  const char* const kSettings[][2] = {
      {"Source", "/var/log/a"},  {"SOURCETYPE", "syslog"}, {"host", "web01"},
      {"ReportingHost", "fwd1"}, {"INDEX", "main"},        {"_raw", "never stored"},
      {"_time", "7"},            {"_TIME", "7"},           {"empty", ""},
      {"followTail", "1"},
  };
  for (const auto& kv : kSettings) props.put(kv[0], kv[1]);
  CowPipelineData pd;
  pd.writable()->load(&props);

  EXPECT_EQ(piece(pd, PipelineData::__inmap_source), "source::/var/log/a");
  EXPECT_EQ(piece(pd, PipelineData::__inmap_host), "host::web01");
  EXPECT_EQ(piece(pd, PipelineData::__inmap_sourcetype), "sourcetype::syslog");
  // The pieces live in the channel, not the map.
  EXPECT_EQ(pd->flags() & PDFLAG_ANY_CHANPIECE_IN_MAP, 0u);
  Str conf;
  pd->defaultConf(conf);
  EXPECT_EQ(conf, "source::/var/log/a|host::web01|syslog|");

  const struct {
    const char* name;
    const char* value;
  } kExpected[] = {
      {"ReportingHost", "reportinghost::fwd1"},
      {"_MetaData:Index", "main"},
      {"_raw", "<absent>"},
      {"_time", "7"},
      {"_TIME", "7"},  // not "_time": an ordinary field
      {"empty", "<absent>"},
      {"followTail", "1"},
      {"Source", "<absent>"},
      {"INDEX", "<absent>"},
  };
  for (const auto& e : kExpected) EXPECT_EQ(value(pd, e.name), e.value) << e.name;
  Timeval tv;
  ASSERT_TRUE(pd->getTimeKey(&tv));
  EXPECT_EQ(tv.tv_sec, 7);
  EXPECT_FALSE(pd->hasRaw());
}

TEST(PipelineDataLoad, WithoutAHostTheServerNameStands) {
  EXPECT_EQ(ServerConfig::getServerName(), nodeName());
  PropertiesMap props;
  props.put("sourcetype", "app");
  props.put("host", "");  // empty counts as absent
  CowPipelineData pd;
  pd.writable()->load(&props);
  EXPECT_EQ(piece(pd, PipelineData::__inmap_host), "host::" + nodeName());
  EXPECT_EQ(piece(pd, PipelineData::__inmap_source), "<absent>");
  EXPECT_EQ(piece(pd, PipelineData::__inmap_sourcetype), "sourcetype::app");
}

}  // namespace
