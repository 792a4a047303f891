// The XML forms of Str, FileStar and LoggerStream: each writes what
// XmlContents serialises, so that the three agree byte for byte.
#include "util/FileStar.h"
#include "util/LoggerStream.h"
#include "util/Str.h"
#include "util/XmlContents.h"
#include "util/XmlDocument.h"
#include "util/XmlNode.h"

namespace {

template <class T>
void appendContents(Str& out, const T& x) {
  const XmlContents c(x);
  out.append(c.data(), c.size());
}

template <class T>
ssize_t writeContents(const FileStar& f, const T& x) {
  const XmlContents c(x);
  return f.write(c.data(), c.size());
}

}  // namespace

Str::Str(const XmlNode& node) { appendContents(*this, node); }

Str& Str::append(const XmlNode& node) {
  appendContents(*this, node);
  return *this;
}

Str& Str::append(const XmlAttribute& attr) {
  appendContents(*this, attr);
  return *this;
}

Str& Str::append(const XmlDocument& doc) {
  appendContents(*this, doc);
  return *this;
}

ssize_t FileStar::write(const XmlNode& node) const { return writeContents(*this, node); }

ssize_t FileStar::write(const XmlAttribute& attr) const { return writeContents(*this, attr); }

ssize_t FileStar::write(const XmlDocument& doc) const { return writeContents(*this, doc); }

LoggerStream& LoggerStream::operator<<(const XmlNode& node) {
  if (_logger != nullptr) appendContents(_text, node);
  return *this;
}

LoggerStream& LoggerStream::operator<<(const XmlAttribute& attr) {
  if (_logger != nullptr) appendContents(_text, attr);
  return *this;
}

LoggerStream& LoggerStream::operator<<(const XmlDocument& doc) {
  if (_logger != nullptr) appendContents(_text, doc);
  return *this;
}
