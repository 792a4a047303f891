#include "framework/HTTPScriptHandler.h"

#include "framework/HTTPReply.h"
#include "framework/HTTPRequest.h"
#include "framework/ScopedUserContext.h"
#include "libbundle/PropertyPages.h"
#include "util/Base64.h"
#include "util/ChildProcess.h"
#include "util/Logger.h"
#include "util/XMLAndStringUtil.h"
#include "util/XmlDocument.h"

namespace {

Logger gLogger("HTTPScriptHandler");

void element(Str& out, const char* name, const Str& text) {
  out += std::string("<") + name + ">";
  XMLAndStringUtil::utf8XmlEscape(out, text);
  out += std::string("</") + name + ">";
}

void named(Str& out, const char* tag, const Str& name, const Str& text) {
  out += std::string("<") + tag + " name=\"";
  XMLAndStringUtil::utf8XmlEscape(out, name);
  out += "\">";
  XMLAndStringUtil::utf8XmlEscape(out, text);
  out += std::string("</") + tag + ">";
}

void args(Str& out, const char* name, const MRestHandlerArg::ArgMap& map) {
  out += std::string("<") + name + ">";
  for (const auto& [key, values] : map) {
    for (const Str& v : values) named(out, "arg", key, v);
  }
  out += std::string("</") + name + ">";
}

HTTPReply* failure(const Str& message) {
  gLogger.error("%s", message.c_str());
  return HTTPReply::createErrorXMLReply(500, message, Str("ERROR"));
}

}  // namespace

HTTPScriptHandler::HTTPScriptHandler(const BundlesSetup& setup, int timeLimitSec)
    : _setup(setup), _timeLimitSec(timeLimitSec) {}

void HTTPScriptHandler::init(std::map<Str, RestMapData*>& stanzas, PropertyPages* restmap) {
  std::map<Str, Script> table;
  for (const auto& [name, data] : stanzas) {
    Script s;
    s.script = data->get(Str("script"));
    s.handler = data->get(Str("handler"));
    s.scriptType = data->get(Str("scripttype"));
    s.application = data->getSourceApplication();
    s.stanza = *data;
    if (s.script.empty() && s.handler.empty()) {
      gLogger.error("configuration error, %s does not have a 'script' or 'handler' tag - skipping",
                    name.c_str());
      continue;
    }
    table[name] = s;
  }
  Str pythonHandler;
  if (restmap != nullptr) {
    PropertiesMap global;
    if (restmap->getStanza(Str("global"), global)) {
      pythonHandler = global.get(Str("pythonHandlerPath"));
    }
  }
  ScopedLock hold(_mutex);
  _scriptMap.swap(table);
  _pythonHandlerPath = pythonHandler;
}

HTTPReply* HTTPScriptHandler::handleRequest(const MRestHandlerArg& arg) {
  Script script;
  Str pythonHandler;
  {
    ScopedLock hold(_mutex);
    auto it = _scriptMap.find(arg.getRestmapName());
    if (it == _scriptMap.end()) {
      return failure(Str().format("script %s not found in scriptMap - configuration error",
                                  arg.getRestmapName().c_str()));
    }
    script = it->second;
    pythonHandler = _pythonHandlerPath;
  }
  User user;
  if (ScopedUserContext::getCurrentUser(user) &&
      ScopedUserContext::getCurrentSessionToken().empty()) {
    // A password with every request: the script gets no session to act in.
    gLogger.warn("Old school authentication not supported for scripts");
  }

  StrVector argv;
  Str program;
  if (!script.script.empty()) {
    if (script.script[0] == '/') {
      program = script.script;
    } else {
      const Pathname bin = script.application.empty() || script.application == "system"
                               ? _setup.getSystem() / "bin"
                               : _setup.getApps() / script.application / "bin";
      program = Str(bin / script.script);
    }
  }
  if (script.scriptType == "python" || program.empty()) {
    argv.push_back(Str("python3"));
    if (!pythonHandler.empty()) argv.push_back(pythonHandler);
    if (program.empty() && pythonHandler.empty()) {
      return failure(Str().format("handler %s needs pythonHandlerPath in stanza global",
                                  script.handler.c_str()));
    }
    argv.push_back(program.empty() ? script.handler : program);
  } else {
    argv.push_back(program);
  }

  const ChildProcessOutcome outcome =
      ChildProcess::run(argv, createXMLRequest(arg, script.stanza), _timeLimitSec);
  if (!outcome.started || outcome.timedOut) {
    return failure(Str().format("script %s failed: %s", arg.getRestmapName().c_str(),
                                outcome.error.c_str()));
  }
  if (outcome.exitStatus != 0) {
    return failure(Str().format("script %s exited with status %d", arg.getRestmapName().c_str(),
                                outcome.exitStatus));
  }
  return parseReply(outcome.output, arg.getRestmapName());
}

Str HTTPScriptHandler::createXMLRequest(const MRestHandlerArg& arg, const PropertiesMap& stanza) {
  const FdConnectionData& c = arg.getRestConnectionData();
  Str out("<request>");
  out += "<connectionData>";
  element(out, "ip", c.peerIp.empty() ? c.peerName : c.peerIp);
  element(out, "ssl", Str(c.ssl ? "1" : "0"));
  element(out, "listeningPort", Str(std::to_string(c.peerPort)));
  element(out, "nicIPaddr", Str());
  out += "</connectionData>";
  User user;
  if (!ScopedUserContext::getCurrentUser(user)) user = arg.getRestHandlerContext().getRestUser();
  out += "<user>";
  element(out, "id", user.name());
  element(out, "name", user.name());
  out += "</user>";
  out += "<restmap>";
  element(out, "name", arg.getRestmapName());
  for (const auto& [key, property] : stanza) {
    named(out, "key", std::string("script:") + key, property.value());
  }
  out += "</restmap>";
  element(out, "path", arg.getRestPath());
  element(out, "method", arg.getRestMethod());
  args(out, "form", arg.getRestPostArgs());
  args(out, "query", arg.getRestGetArgs());
  out += "<headers>";
  if (arg.getRestRequest() != nullptr) {
    for (const Str& line : arg.getRestRequest()->headers()) {
      Str name, value;
      // The script acts through the session, never with the caller's password.
      if (HTTPRequest::getHeaderComponents(line, name, value) &&
          name.compareIgnoreCase(Str("Authorization")) != 0) {
        named(out, "header", name, value);
      }
    }
  }
  out += "</headers>";
  element(out, "payload", arg.getRestRequest() != nullptr ? arg.getRestRequest()->body() : Str());
  out += "</request>\n";
  return out;
}

HTTPReply* HTTPScriptHandler::parseReply(const Str& output, const Str& name) {
  XmlDocument doc(StrSegment(output), "script reply", false, false);
  XmlNode root = doc.empty() ? XmlNode() : doc.get_root();
  if (!root.valid() || Str(root.name()) != "response") {
    return failure(Str().format("script %s gave no reply document: %s", name.c_str(),
                                doc.error().c_str()));
  }
  long status = 200;
  XmlNode statusNode = root.find("statusCode");
  if (statusNode.valid() && (!statusNode.tryToLong(status) || status < 100 || status > 599)) {
    return failure(Str().format("script %s gave a bad statusCode", name.c_str()));
  }
  Str contentType("text/xml");
  StrVector headers;
  XmlNode headersNode = root.find("headers");
  if (headersNode.valid()) {
    for (XmlNode h = headersNode.begin(); h.valid(); h.increment_element_iterator()) {
      const Str tag(h.name());
      if (tag != "header" && tag != "key") continue;
      Str headerName, value;
      h.attribute("name").tryToStr(headerName);
      h.tryToStr(value);
      if (headerName.compareIgnoreCase(Str("Content-Type")) == 0) {
        contentType = value;
      } else if (!headerName.empty()) {
        headers.push_back(std::string(headerName) + ": " + value);
      }
    }
  }
  Str body;
  XmlNode encoded = root.find("encodedpayload");
  if (encoded.valid()) {
    Str text;
    encoded.tryToStr(text);
    text.trimInPlace();
    if (!Base64::decode(text, body)) {
      return failure(Str().format("script %s gave an encodedpayload that is not base64",
                                  name.c_str()));
    }
  } else {
    XmlNode payload = root.find("payload");
    if (payload.valid()) payload.tryToStr(body);
  }
  return HTTPReply::createReply(static_cast<int>(status), contentType, body, headers);
}
