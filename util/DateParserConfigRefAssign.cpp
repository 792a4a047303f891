// DateParserConfigRef::assignTo, apart from the handle so that the handle and
// its cache stand without the parser.
#include "util/DateParser.h"
#include "util/DateParserConfigRef.h"

void DateParserConfigRef::assignTo(DateParser* parser) const {
  if (_conf == nullptr) {
    parser->setMode(DateParser::MODE_NONE);
    parser->setConf(&DateParser::__emptyConf);
  } else if (isCurrent()) {
    parser->setConf(&DateParser::__emptyConf);
    parser->setMode(DateParser::MODE_CURRENT);
  } else {
    // Through the empty configuration and a reset, so that no memory of the
    // old patterns survives into the new ones.
    parser->setConf(&DateParser::__emptyConf);
    parser->setMode(DateParser::MODE_NONE);
    parser->reset();
    parser->setMode(DateParser::MODE_REGULAR);
    parser->setConf(_conf);
  }
}
