// The loading of the system's message texts (StringMgr) from the
// "literals" configuration, which util cannot read itself.
#pragma once

class StringMgr;

// Fills `mgr` from the page "literals" of the default root: each setting of
// each stanza becomes addLiteral(stanza, setting, value). A page that
// cannot be had logs "Cannot load literals: <reason>" at warn level
// (channel "LiteralsLoader") and leaves the catalogue empty.
void loadLiteralsFromPages(StringMgr& mgr);

// Makes loadLiteralsFromPages the catalogue's loader. A program calls it
// once at start-up, before the first StringMgr::instance().
void installLiteralsLoader();
