// The handler of "restmap" stanzas of category "script": runs an external
// program per request, hands it the request as an XML document on its
// standard input, and answers with the XML document it prints.
//
// The program: "script" relative to the "bin" directory of the
// application whose layer defined the stanza (etc/apps/<app>/bin, or
// etc/system/bin), or an absolute path. With "scripttype = python" it is
// run by python3, through "pythonHandlerPath" of stanza "global" when that
// is set (python3 <handler> <script>). A stanza with "handler" and no
// "script" runs the python handler program with the handler's name.
//
// The request document (createXMLRequest):
//   <request>
//     <connectionData><ip>127.0.0.1</ip><ssl>0</ssl><listeningPort>0</listeningPort>
//       <nicIPaddr/></connectionData>
//     <user><id>admin</id><name>admin</name></user>
//     <restmap><name>script:echo</name><key name="script:match">/echo</key>...</restmap>
//     <path>/echo/x</path><method>GET</method>
//     <form><arg name="a">1</arg></form><query><arg name="q">2</arg></query>
//     <headers><header name="Host">x</header></headers>
//     <payload>body</payload>
//   </request>
// The reply document the program prints:
//   <response>
//     <statusCode>200</statusCode>
//     <headers><header name="Content-Type">text/plain</header></headers>
//     <payload>text</payload>   or   <encodedpayload>base64</encodedpayload>
//   </response>
// ("key" elements are accepted wherever "header" is.) A program that does
// not start, exits non-zero, runs past its time limit or prints no such
// document gives a 500 error reply.
#pragma once

#include <map>

#include "framework/RestHandler.h"
#include "libbundle/BundlesSetup.h"
#include "util/Mutex.h"
#include "util/Str.h"

class HTTPScriptHandler : public MRestHandler {
 public:
  static constexpr int DEFAULT_TIME_LIMIT_SEC = 60;

  // Scripts under `setup`'s root; the default root by default.
  explicit HTTPScriptHandler(const BundlesSetup& setup = BundlesSetup(),
                             int timeLimitSec = DEFAULT_TIME_LIMIT_SEC);

  void init(std::map<Str, RestMapData*>& stanzas, PropertyPages* restmap) override;
  HTTPReply* handleRequest(const MRestHandlerArg& arg) override;
  HTTPReply* handleRequestNS(const MRestHandlerArg& arg) override { return handleRequest(arg); }

  // The request document above.
  static Str createXMLRequest(const MRestHandlerArg& arg, const PropertiesMap& stanza);

 private:
  struct Script {
    Str script;
    Str handler;
    Str scriptType;
    Str application;  // whose layer defined it
    PropertiesMap stanza;
  };
  // The reply from the program's output; a 500 error reply when it is no
  // reply document.
  static HTTPReply* parseReply(const Str& output, const Str& name);

  BundlesSetup _setup;
  int _timeLimitSec;
  Mutex _mutex;
  std::map<Str, Script> _scriptMap;  // GUARDED_BY(_mutex), by stanza name
  Str _pythonHandlerPath;            // GUARDED_BY(_mutex)
};
