#include "util/CharacterClass.h"

#include "util/Str.h"

CharacterClass::CharacterClass(const Str& members, bool flag) : _words{} {
  setAll(!flag);
  set_multi(members.data(), members.size(), flag);
}

void CharacterClass::set_multi(const char* members, size_t len, bool flag) {
  for (size_t i = 0; i < len; ++i) set(members[i], flag);
}

bool CharacterClass::operator==(const CharacterClass& o) const {
  for (int i = 0; i < 4; ++i) {
    if (_words[i] != o._words[i]) return false;
  }
  return true;
}

// All constant-initialised: the constructors are constexpr.
const CharacterClass CharacterClass::ALL_WHITESPACES(" \t\n\v\f\r");
const CharacterClass CharacterClass::DIGITS("0123456789");
const CharacterClass CharacterClass::ALPHA(
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ");
const CharacterClass CharacterClass::ALPHA_UNDER(
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_");
const CharacterClass CharacterClass::ALPHA_NUM(
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ");
const CharacterClass CharacterClass::ALPHA_NUM_UNDER(
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_");
const CharacterClass CharacterClass::ALPHA_NUM_UNDER_DASH(
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-");
const CharacterClass CharacterClass::ALPHA_NUM_UNDER_DASH_DOT(
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-.");
const CharacterClass CharacterClass::COMMA_OR_SPACE(" ,");
const CharacterClass CharacterClass::SEARCH_ESC("\"\\");
