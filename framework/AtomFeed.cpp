#include "framework/AtomFeed.h"

#include <time.h>

#include "util/XMLAndStringUtil.h"

namespace {

void element(Str& out, const char* indent, const char* name, const Str& text) {
  out += indent;
  out += Str("<") + name + ">";
  XMLAndStringUtil::utf8XmlEscape(out, text);
  out += Str("</") + name + ">\n";
}

}  // namespace

Str AtomFeed_new::formatTime(int64_t epochSeconds) {
  time_t t = static_cast<time_t>(epochSeconds);
  struct tm tm;
  gmtime_r(&t, &tm);
  char buf[64];
  strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%S+00:00", &tm);
  return Str(buf);
}

Str AtomFeed_new::toXml() const {
  Str out("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          "<feed xmlns=\"http://www.w3.org/2005/Atom\">\n");
  element(out, "  ", "title", title);
  element(out, "  ", "id", id);
  if (!updated.empty()) element(out, "  ", "updated", updated);
  if (!author.empty()) {
    out += "  <author>";
    element(out, "", "name", author);
    out.pop_back();
    out += "</author>\n";
  }
  for (const AtomEntry& e : entries) {
    out += "  <entry>\n";
    element(out, "    ", "title", e.title);
    element(out, "    ", "id", e.id);
    if (!e.updated.empty()) element(out, "    ", "updated", e.updated);
    for (const auto& [href, rel] : e.links) {
      out += "    <link href=\"";
      XMLAndStringUtil::utf8XmlEscape(out, href);
      out += "\" rel=\"";
      XMLAndStringUtil::utf8XmlEscape(out, rel);
      out += "\"/>\n";
    }
    if (!e.fields.empty()) {
      out += "    <content type=\"text/xml\">\n      <fields>";
      for (const auto& [name, value] : e.fields) {
        out += "<field name=\"";
        XMLAndStringUtil::utf8XmlEscape(out, name);
        out += "\">";
        XMLAndStringUtil::utf8XmlEscape(out, value);
        out += "</field>";
      }
      out += "</fields>\n    </content>\n";
    }
    out += "  </entry>\n";
  }
  out += "</feed>\n";
  return out;
}
