#include "framework/AtomFeed.h"

#include <gtest/gtest.h>

#include "framework/HTTPReply.h"
#include "util/XmlDocument.h"
#include "util/testing/XmlTestInit.h"

namespace {

TEST(AtomFeed, WritesAParsableFeedWithEscapedText) {
  AtomFeed_new feed;
  feed.title = "a <b> & \"c\"";
  feed.id = "/services";
  feed.updated = AtomFeed_new::formatTime(0);
  AtomEntry e;
  e.title = "x&y";
  e.id = "/services/x&y";
  e.links.emplace_back(Str("/services/x?a=1&b=\"2\""), Str("list"));
  e.fields[Str("z")] = "last";
  e.fields[Str("a<")] = "first";
  feed.entries.push_back(e);
  feed.entries.push_back(AtomEntry());

  const Str xml = feed.toXml();
  XmlDocument doc(StrSegment(xml), "feed", false, false);
  ASSERT_FALSE(doc.empty()) << doc.error();
  XmlNode root = doc.get_root();
  EXPECT_EQ(Str("feed"), Str(root.name()));
  EXPECT_EQ("a <b> & \"c\"", root.find("title").toStr(""));
  EXPECT_EQ("1970-01-01T00:00:00+00:00", root.find("updated").toStr(""));
  EXPECT_FALSE(root.find("author").valid());  // empty author left out
  XmlNode entry = root.find("entry");
  ASSERT_TRUE(entry.valid());
  EXPECT_EQ("x&y", entry.find("title").toStr(""));
  EXPECT_EQ("/services/x?a=1&b=\"2\"", entry.find("link").attribute("href").toStr(""));
  XmlNode field = entry.find("content").find("fields").begin();
  EXPECT_EQ("a<", field.attribute("name").toStr(""));  // fields in name order
  EXPECT_EQ("first", field.toStr(""));
  entry.increment_element_iterator();
  ASSERT_TRUE(entry.valid());
  EXPECT_FALSE(entry.find("content").valid());  // no fields, no content

  std::unique_ptr<HTTPReply> reply(HTTPReply::createAtomReply(feed));
  EXPECT_EQ(200, reply->_status);
  EXPECT_EQ(xml, reply->getBody());
}

TEST(AtomFeed, TimesInUtc) {
  const struct {
    int64_t t;
    const char* text;
  } kCases[] = {
      {0, "1970-01-01T00:00:00+00:00"},
      {951782400, "2000-02-29T00:00:00+00:00"},
      {1795467599, "2026-11-23T20:59:59+00:00"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.text, AtomFeed_new::formatTime(c.t)) << c.t;
}

}  // namespace
