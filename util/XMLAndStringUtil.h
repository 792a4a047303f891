// Text rules for output that never becomes a document: XML and JSON
// escaping, the one-value XML and JSON writers of the REST layer, stanza
// patterns as regular expressions, MD5 digests and small tokenisers.
// Stateless: every function is safe from any thread on caller-owned data.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/StrVector.h"

class FileDescriptor;

class XMLAndStringUtil {
 public:
  typedef std::vector<std::map<Str, Str>> MapVector;

  // ---- Escaping; all append to `out` ----
  // One byte: tab, line feed and carriage return stay; " & ' < > become
  // &quot; &amp; &apos; &lt; &gt;; any other byte below 0x20 becomes the
  // four characters "\x1F" (XML 1.0 cannot carry it even as a reference);
  // everything else, bytes of 0x80 and up too, stays.
  static void xmlEscape(Str& out, char c);
  static void xmlEscapeString(Str& out, StrSegment in);
  static Str xmlEscapeString(StrSegment in);
  // As xmlEscapeString, but a byte that does not start a valid UTF-8
  // character is written "\xHH" like a control byte, so the output is valid
  // UTF-8 whatever the input: "a\xFFb" gives "a\xFFb" as seven characters.
  static void utf8XmlEscape(Str& out, StrSegment in);
  // For a JSON string body: form feed, tab, line feed, " and \ as \f \t \n
  // \" \\; U+2028 and U+2029 as "\u2028" and "\u2029"; other bytes below
  // 0x20 as "\u00XX" in lower-case hex ("\r" is "\u000d").
  static void jsonEscape(Str& out, Str const& in);
  // Unwraps every complete "<![CDATA[...]]>" section in place, keeping its
  // text; an unterminated opener stays as written. Returns whether anything
  // was removed.
  static bool removeCDATATags(Str& text);

  // A stanza pattern as a regular expression, in place: "..." becomes ".*",
  // "*" becomes "[^/]*", any other "." becomes "\.", and every other byte
  // stays, so regex syntax in the pattern remains active:
  // "/var/log/.../*.log" gives "/var/log/.*/[^/]*\.log". The flag is the
  // caller's page kind and changes nothing.
  static void toRegex(Str& pattern, bool);

  // ---- Digests (OpenSSL MD5) ----
  // The 32 lower-case hex digits of the MD5 of `in`.
  static Str md5(Str const& in);
  // The first eight bytes of the MD5 of `in` as a big-endian number, so its
  // hex form is the first 16 digits of md5(in).
  static uint64_t halfMd5OfStr(Str const& in);
  // The same over `length` bytes at `bytes` (null allowed when length is 0).
  static uint64_t halfMd5(const void* bytes, size_t length);
  // The hex MD5 of what `fd` yields from its position to its end. False,
  // with errno set and `out` left alone, when a read fails.
  static bool md5HashHex(FileDescriptor const& fd, Str& out);

  // ---- One named value, appended to `out` ----
  // XML: <key name="n">v</key> and a line feed; a bool is "1" or "0"; a
  // list puts "\t<list>\n", one "\t\t<item>v</item>\n" per value and
  // "\t</list>\n" inside the key; a vector of maps puts one "\t\t\t<dict>"
  // per map, with one "\t\t\t\t<key name=...>" line per entry, inside each
  // item. Names and values are escaped with xmlEscapeString.
  static void xmlOutput(Str& out, char const* name, Str const& value);
  static void xmlOutput(Str& out, char const* name, char const* value);
  static void xmlOutput(Str& out, char const* name, bool value);
  static void xmlOutput(Str& out, char const* name, StrVector const& values);
  static void xmlOutput(Str& out, char const* name, MapVector const& maps);
  // JSON: "n": "v",\n — a bool bare (true, false), a list as ["a", "b"],
  // a vector of maps as [{"k": "v"}, {}]. Names and strings escaped with
  // jsonEscape.
  static void jsonOutput(Str& out, char const* name, Str const& value);
  static void jsonOutput(Str& out, char const* name, char const* value);
  static void jsonOutput(Str& out, char const* name, bool value);
  static void jsonOutput(Str& out, char const* name, StrVector const& values);
  static void jsonOutput(Str& out, char const* name, MapVector const& maps);

  // ---- Lists ----
  // The values with `separator` between them; "" for none.
  static Str join(StrVector const& values, char const* separator);
  // Appends the runs of text between blanks, tabs and line ends: no quoting,
  // no empty tokens.
  static void liteTokenize(StrSegment text, StrVector& out);
  // As liteTokenize, but a double-quoted stretch is part of its token with
  // its blanks kept and its quotes removed. Inside quotes a backslash takes
  // the next byte literally and is dropped; outside, it and the next byte
  // are kept as they are: `a "b c"d \"e` gives a, b cd, \"e.
  // False, appending nothing, for an unterminated quote.
  static bool tokenizeString(StrSegment text, StrVector& out);
};
