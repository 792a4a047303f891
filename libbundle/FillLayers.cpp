#include "libbundle/FillLayers.h"

#include <map>
#include <memory>
#include <vector>

#include "libbundle/IConfCache.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/StanzaPattern.h"
#include "util/Logger.h"
#include "util/Regex.h"

const char DEFAULT_STANZA[] = "default";

namespace {

Logger gLogger("PropertyPages");

const char PRIORITY_KEY[] = "priority";

typedef std::map<RegexMatchKey, std::unique_ptr<IConfCacheIterator>> ContextMatches;

// Files the stanza under `it` in `matches` by its source type and priority;
// a key already there is kept, so a stanza found twice counts once when its
// priority is explicit.
void addMatch(const IConfCacheIterator& it, unsigned long long defaultPriority,
              ContextMatches& matches) {
  PropertiesMap scratch;
  it.addLayerTo(scratch, true);
  Str ignoredName;
  RegexMatchKey key{scratch.getSource(ignoredName),
                    scratch.toUnsignedLongLong(PRIORITY_KEY, defaultPriority), it.getConfName()};
  matches.try_emplace(std::move(key), it.copy());
}

std::vector<StrSegment> splitContexts(const StrSegment& context) {
  std::vector<StrSegment> pieces;
  size_t start = 0;
  for (;;) {
    const size_t bar = context.find('|', start);
    if (bar == StrSegment::npos) break;
    pieces.emplace_back(context.data() + start, bar - start);
    start = bar + 1;
  }
  pieces.emplace_back(context.data() + start, context.size() - start);
  return pieces;
}

}  // namespace

void fillLayersImpl(IConfCache& cache, PropertiesMap* out, const StrSegment& context,
                    bool patternMatch) {
  const std::vector<StrSegment> pieces = splitContexts(context);
  if (patternMatch) {
    gLogger.debug("Performing pattern matching for: %.*s", static_cast<int>(context.size()),
                  context.data());
  }
  ScopedIConfCacheLock lock(cache);
  std::vector<ContextMatches> perContext(pieces.size());
  for (size_t i = 0; i < pieces.size(); ++i) {
    const Str piece(pieces[i]);
    if (auto exact = cache.findConf(piece)) addMatch(*exact, EXACT_STANZA_PRIORITY, perContext[i]);
    if (!patternMatch) continue;
    for (auto it = cache.begin(); !it->isDone(); it->next()) {
      const Regex* regex = it->getConfRegex();
      if (regex != nullptr && regex->matchesWhole(pieces[i])) {
        addMatch(*it, PATTERN_STANZA_PRIORITY, perContext[i]);
      }
    }
  }
  for (const ContextMatches& matches : perContext) {
    for (const auto& [key, it] : matches) {
      it->addLayerTo(*out, true);
      if (key.priority == PATTERN_STANZA_PRIORITY) {
        gLogger.debug("Pattern '%s' matches with lowest priority", key.stanzaName.c_str());
      } else {
        gLogger.debug("Pattern '%s' matches with priority %llu", key.stanzaName.c_str(),
                      key.priority);
      }
    }
  }
  if (auto dflt = cache.findConf(DEFAULT_STANZA)) dflt->addLayerTo(*out, false);
}
