#include "libbundle/User.h"

const User User::NOBODY_USER("nobody");
const User User::EMPTY_USER;
