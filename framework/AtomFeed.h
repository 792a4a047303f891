// A small Atom (RFC 4287) feed writer for the listings of the management
// port: a feed with a title, id, update time and author, and entries with
// links and a flat table of fields.
//
// The written document, UTF-8, every text escaped:
//   <?xml version="1.0" encoding="UTF-8"?>
//   <feed xmlns="http://www.w3.org/2005/Atom">
//     <title>services</title>
//     <id>/services</id>
//     <updated>2026-11-23T21:00:00+00:00</updated>
//     <author><name>Kestrod</name></author>
//     <entry>
//       <title>auth/login</title>
//       <id>/services/auth/login</id>
//       <updated>...</updated>
//       <link href="/services/auth/login" rel="list"/>
//       <content type="text/xml">
//         <fields><field name="match">^/auth/login</field></fields>
//       </content>
//     </entry>
//   </feed>
// An entry without fields has no <content>; an empty author or updated
// text leaves its element out.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "util/Str.h"

struct AtomEntry {
  Str title;
  Str id;
  Str updated;
  std::vector<std::pair<Str, Str>> links;  // (href, rel)
  std::map<Str, Str> fields;               // written in name order
};

// A plain value: one owner at a time.
class AtomFeed_new {
 public:
  Str title;
  Str id;
  Str updated;
  Str author;
  std::vector<AtomEntry> entries;

  // The document above.
  Str toXml() const;
  // `t` as an Atom date in UTC: "2026-11-23T21:00:00+00:00".
  static Str formatTime(int64_t epochSeconds);
};
