// The meta key of an event: a compact list of key/value atoms that become
// index terms, whose values are mostly offsets into the raw text, numbers or
// shared keys, and whose text form is the "_meta" value of a serialised
// event ("a::b n::7 _subsecond::.120 \"k 1\"::\"v \\\"x\\\"\"").
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "util/HashedStr.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class PipelineInputChannel;
class Timeval;
struct ExtraTimevalParseInfo;

// The value types, in the low four bits of an atom's flags.
enum PipelineDataMetaKeyAtomType_t : uint32_t {
  PDMKD_RAW_OFFSETLEN = 0,
  PDMKD_RAW_OFFSETLEN_REPEAT_DBLQUOTE = 1,
  PDMKD_RAW_OFFSETLEN_REPEAT_SNGLQUOTE = 2,
  PDMKD_RAW_OFFSETLEN_CESCAPING = 3,
  PDMKD_RAW_OFFSETLEN_XMLESCAPING = 4,
  PDMKD_RAW_OFFSETLEN_XMLESCAPING_W_CDATA = 5,
  PDMKD_RAW_OFFSETLEN_URLESCAPING = 6,
  PDMKD_STRING = 7,
  PDMKD_UNSIGNED = 8,
  PDMKD_ENCODED_SUBSECONDS = 9,
  PDMKD_PUNCT = 10,
  PDMKD_MISSING = 11,
};

const uint32_t PDMKD_FLAG_TYPEBITS = 0xF;
const uint32_t PDMKD_FLAG_KEY_NEEDS_ESCAPE = 0x10;
const uint32_t PDMKD_FLAG_VALUE_NEEDS_ESCAPE = 0x20;
const uint32_t PDMKD_FLAG_KEY_HAS_CAPITAL = 0x40;
const uint32_t PDMKD_FLAG_VALUE_HAS_CAPITAL = 0x80;
const uint32_t PDMKD_FLAG_ENDED_UNQUOTED = 0x100;
const uint32_t PDMKD_FLAG_KEY_IS_NUMBER = 0x200;

// One atom as a single index token, "key::value", unescaped and unquoted.
struct st_token_answer {
  char bytes[1024];
  size_t length;
};

// One key/value pair. The key is a hashed string, or with
// PDMKD_FLAG_KEY_IS_NUMBER an index into the channel's numbered fields; the
// value's 64 bits are read by type. Strings belong to the owning meta key's
// pool or are predefined. Thread story: one owner at a time.
class PipelineDataMetaKeyAtom {
 public:
  PipelineDataMetaKeyAtom() : _key(0), _value(0) { _blk.flags = PDMKD_MISSING; }

  PipelineDataMetaKeyAtomType_t valueType() const {
    return static_cast<PipelineDataMetaKeyAtomType_t>(_blk.flags & PDMKD_FLAG_TYPEBITS);
  }
  uint32_t flags() const { return _blk.flags; }
  bool keyIsNumber() const { return (_blk.flags & PDMKD_FLAG_KEY_IS_NUMBER) != 0; }
  // The key's text; a numbered key reads from `channel`'s field table.
  // REQUIRES: `channel` is given for a numbered key.
  StrSegment key(const PipelineInputChannel* channel) const;
  HashedStrReference keyRef() const;
  uint32_t keyNumber() const { return static_cast<uint32_t>(_key); }
  // REQUIRES: the matching type.
  uint64_t valueAsUnsigned() const { return _value; }
  StrSegment valueAsRawOffsetlen(StrSegment raw) const;
  HashedStrReference valueAsString() const;

  // Stores the decimal text as PDMKD_UNSIGNED. Refuses, leaving the atom as
  // it was, an empty text, a non-digit, "0" with more digits after it
  // ("007") and anything above 2^64 - 1.
  bool set_to_unsigned(const char* begin, const char* end);
  // Stores ".digits" as PDMKD_ENCODED_SUBSECONDS and the code in *encoded.
  // Refuses as encodeSubseconds does.
  bool set_to_subsecond(const char* begin, const char* end, uint64_t* encoded);

  // Prints "key::value" (a missing value prints the key alone), quoting
  // what needs it. `raw` backs raw-offset and punct values.
  void appendTo(Str* out, StrSegment raw, const PipelineInputChannel* channel) const;
  // The form of an atom whose text ended inside an open quote: as appendTo
  // with the quote forced open and never closed.
  // REQUIRES: "(_blk.flags & PDMKD_FLAG_ENDED_UNQUOTED) != 0", and no
  // raw-offset or punct type.
  void appendToEndingInQuote(Str* out, StrSegment raw, const PipelineInputChannel* channel) const;
  // Fills *answer with "key::value" (a missing value gives the key alone),
  // unescaped as appendTo does but never quoted. False, with an empty
  // answer, when the token does not fit.
  bool asIndexableToken(st_token_answer* answer, StrSegment raw,
                        const PipelineInputChannel* channel) const;
  // The punctuation summary of `raw`: class bytes only, at most 50 kept,
  // space as "_", tab as "t", carriage return as "\r".
  static void buildPunct(Str* out, StrSegment raw);
  // Appends the text the raw bytes stand for under `type`: 0 as is, 1 and 2
  // with doubled quotes single, 3 with C backslash escapes read, 4 with XML
  // character references and the five entities read, 5 as 4 with
  // "<![CDATA[...]]>" bodies taken as they stand, 6 with "+" and "%HH" read.
  // A bad escape is text.
  static void appendRawOffsetValueTo(Str* out, uint32_t type, const char* bytes, size_t length);

 private:
  friend class PipelineDataMetaKey;

  void _setKey(HashedStrReference key);
  void _setString(HashedStrReference value);

  uint64_t _key;    // HashedStrReference bits, or the key number
  uint64_t _value;  // by type: offset << 32 | length, number, or HashedStrReference bits
  struct {
    uint32_t flags;
  } _blk;
};

// The atom list with the pool that owns its strings.
// Thread story: one owner at a time; follows its event's copy-on-write rule.
class PipelineDataMetaKey {
 public:
  static const uint32_t VFLAG_HAS_PUNCT = 1;
  static const uint32_t VFLAG_HAS_RAW_REFERENCES = 2;
  static const uint32_t VFLAG_USES_KEYS_IN_CHANNEL = 4;

  PipelineDataMetaKey() = default;
  // Copies the atoms and then clones their pooled strings.
  PipelineDataMetaKey(const PipelineDataMetaKey& other);
  PipelineDataMetaKey& operator=(const PipelineDataMetaKey& other);

  // Appends the atoms of a text form; never fails. Examples:
  //   `a::b c::"d e"`     two strings, the second flagged for escaping
  //   `n::007` / `n::7`   a string / the number 7
  //   `_subsecond::.120`  encoded subseconds; `_subsecond::.abc` a string
  //   `x::"unterminated`  a string flagged PDMKD_FLAG_ENDED_UNQUOTED
  //   `flag`              key only, PDMKD_MISSING
  // "::" inside quotes is part of the key.
  void parse(const char* begin, const char* end);
  // Appends the text form, atoms joined by one space.
  void appendTo(Str* out, StrSegment raw, const PipelineInputChannel* channel) const;

  // The predefined string for these bytes, else a copy in the pool.
  HashedStrReference alloc_hashed_str(const char* text, size_t length);
  // Stores a string value (or a number, for plain digits) with its flags.
  void set_string_val(PipelineDataMetaKeyAtom* atom, const char* bytes, size_t length);
  // PDMKD_FLAG_KEY_HAS_CAPITAL and PDMKD_FLAG_KEY_NEEDS_ESCAPE for a key.
  static uint32_t extra_flags_for_key_name(const char* bytes, size_t length);

  // Builders. Keys are copied unless predefined.
  // A new atom of `type` under `key`, its value left for the caller.
  PipelineDataMetaKeyAtom& add_datum_for_key(StrSegment key, uint32_t type);
  void addUnsigned(StrSegment key, uint64_t value);
  void addString(StrSegment key, StrSegment value);
  void addMissing(StrSegment key);
  // A value at [offset, offset + length) of raw, unescaped as `type` (0 to
  // 6) says when printed; digits alone become a number. An escaped type
  // falls back to 0 when the bytes hold nothing it would change, and 5 to 4
  // when they hold no complete CDATA section.
  void appendRawOffsetLen(StrSegment key, StrSegment raw, size_t offset, size_t length,
                          uint32_t type = PDMKD_RAW_OFFSETLEN);
  void appendRawOffsetLenCEscaped(StrSegment key, StrSegment raw, size_t offset, size_t length);
  void appendRawOffsetLenCsvEscaped(StrSegment key, StrSegment raw, size_t offset, size_t length);
  void appendRawOffsetLenUrlEscaped(StrSegment key, StrSegment raw, size_t offset, size_t length);
  void appendRawOffsetLenXmlEscaped(StrSegment key, StrSegment raw, size_t offset, size_t length);
  void appendRawOffsetLenXmlEscapedWCdata(StrSegment key, StrSegment raw, size_t offset,
                                          size_t length);
  void appendRawOffsetLen(uint32_t keyNumber, const PipelineInputChannel* channel, StrSegment raw,
                          size_t offset, size_t length);
  // The date atoms of a parsed time, by info->subsecDigits: below -2
  // nothing; above 0 "_subsecond" (at most 9 digits); from 0 "date_second";
  // from -1 "date_hour" and "date_minute"; then always "date_year",
  // "date_month" (a name; above 11 "invalid"), "date_mday", "date_wday" (a
  // name; above 6 "invalid") and "date_zone": "local" when the zone was
  // not known, else the offset in minutes ("-480" is a string, "60" a
  // number).
  void addMetaTimeInfo(const Timeval* time, const ExtraTimevalParseInfo* info);
  void addTimeStartEndPos(uint64_t start, uint64_t end);
  void appendPunct();
  void appendEncodedSubseconds(uint64_t value);
  void addBlockSignature(StrSegment raw, StrSegment signature);

  // Encodes ".digits" (see the header of set_to_subsecond): ".0015" is 124,
  // ".000" is 8, ".120" is 241. Refuses "." alone, non-digits, 64 leading
  // zeros or more, and values past 63 bits once shifted.
  static bool encodeSubseconds(const char* begin, const char* end, uint64_t* code);
  // "." then the digits the code stands for; 124 gives ".0015".
  static void decodeSubseconds(uint64_t code, Str* out);

  // Character positions of the time from the "timestartpos" and
  // "timeendpos" numbers; false when either is missing, end <= start, a
  // position falls inside a UTF-8 character or past raw, or raw holds an
  // invalid lead byte before the end.
  bool getTimeLocation(unsigned long* start, unsigned long* length, StrSegment raw) const;
  // Removes the "_indextime" atom, printing it into *found; false when
  // absent.
  bool removeIndexTime(StrSegment raw, Str* found);
  // Re-creates every pooled string in this key's own pool.
  void clone_strings();
  // Turns raw references and punct into strings from the raw about to be
  // replaced and drops the time positions.
  void _rawHasChanged(StrSegment raw);
  // Turns numbered keys into pooled strings from `channel`'s table.
  void _channelIsAboutToChange(const PipelineInputChannel* channel);

  const std::vector<PipelineDataMetaKeyAtom>& atoms() const { return _atoms; }
  uint32_t vflags() const { return _vflags; }
  uint64_t encodedSubseconds() const { return _encodedSubseconds; }

 private:

  std::vector<PipelineDataMetaKeyAtom> _atoms;
  HashedStrMap_KeyPool _pool;
  uint64_t _encodedSubseconds = 0;
  uint32_t _vflags = 0;
};
