// The zone names of Windows event logs and their zoneinfo names.
#include <cstring>

#include "util/Assert.h"
#include "util/TimezoneTables.h"

const SystemZoneName SYSTEM_ZONE_NAMES[SYSTEM_ZONE_NAME_COUNT] = {
    {"AUS Central", "Australia/Darwin"},
    {"AUS Eastern", "Australia/Sydney"},
    {"Acre", "America/Rio_Branco"},
    {"Afghanistan", "Asia/Kabul"},
    {"Africa_Central", "Africa/Kigali"},
    {"Africa_Eastern", "Africa/Kampala"},
    {"Africa_FarWestern", "Africa/Bissau"},
    {"Africa_Southern", "Africa/Johannesburg"},
    {"Africa_Western", "Africa/Niamey"},
    {"Aktyubinsk", "Asia/Aqtobe"},
    {"Alaska", "America/Juneau"},
    {"Alaska_Hawaii", "America/Anchorage"},
    {"Alaskan", "America/Anchorage"},
    {"Almaty", "Asia/Almaty"},
    {"Amazon", "America/Manaus"},
    {"America_Central", "America/Chicago"},
    {"America_Eastern", "America/New_York"},
    {"America_Mountain", "America/Denver"},
    {"America_Pacific", "America/Los_Angeles"},
    {"Anadyr", "Asia/Anadyr"},
    {"Aqtau", "Asia/Aqtau"},
    {"Aqtobe", "Asia/Aqtobe"},
    {"Arab", "Asia/Riyadh"},
    {"Arabian", "Asia/Dubai"},
    {"Arabic", "Asia/Baghdad"},
    {"Argentina", "America/Buenos_Aires"},
    {"Argentina_Western", "America/Mendoza"},
    {"Armenia", "Asia/Yerevan"},
    {"Armenian", "Asia/Yerevan"},
    {"Ashkhabad", "Asia/Ashgabat"},
    {"Atlantic", "America/Halifax"},
    {"Australia_Central", "Australia/Adelaide"},
    {"Australia_CentralWestern", "Australia/Eucla"},
    {"Australia_Eastern", "Australia/Sydney"},
    {"Australia_Western", "Australia/Perth"},
    {"Azerbaijan", "Asia/Baku"},
    {"Azores", "Atlantic/Azores"},
    {"Baku", "Asia/Baku"},
    {"Bangladesh", "Asia/Dhaka"},
    {"Bering", "America/Adak"},
    {"Bhutan", "Asia/Thimphu"},
    {"Bolivia", "America/La_Paz"},
    {"Borneo", "Asia/Kuching"},
    {"Brasilia", "America/Sao_Paulo"},
    {"British", "Europe/London"},
    {"Brunei", "Asia/Brunei"},
    {"Canada Central", "America/Regina"},
    {"Cape Verde", "Atlantic/Cape_Verde"},
    {"Cape_Verde", "Atlantic/Cape_Verde"},
    {"Caucasus", "Asia/Tbilisi"},
    {"Cen. Australia", "Australia/Adelaide"},
    {"Central", "America/Chicago"},
    {"Central America", "America/Guatemala"},
    {"Central Asia", "Asia/Dhaka"},
    {"Central Brazilian", "America/Manaus"},
    {"Central Europe", "Europe/Budapest"},
    {"Central European", "Europe/Warsaw"},
    {"Central Pacific", "Pacific/Guadalcanal"},
    {"Chamorro", "Pacific/Guam"},
    {"Changbai", "Asia/Harbin"},
    {"Chatham", "Pacific/Chatham"},
    {"Chile", "America/Santiago"},
    {"China", "Asia/Shanghai"},
    {"Choibalsan", "Asia/Choibalsan"},
    {"Christmas", "Indian/Christmas"},
    {"Cocos", "Indian/Cocos"},
    {"Colombia", "America/Bogota"},
    {"Cook", "Pacific/Rarotonga"},
    {"Cuba", "America/Havana"},
    {"Dacca", "Asia/Dhaka"},
    {"Dateline", "Etc/GMT+12"},
    {"Davis", "Antarctica/Davis"},
    {"Dominican", "America/Santo_Domingo"},
    {"DumontDUrville", "Antarctica/DumontDUrville"},
    {"Dushanbe", "Asia/Dushanbe"},
    {"Dutch_Guiana", "America/Paramaribo"},
    {"E. Africa", "Africa/Nairobi"},
    {"E. Australia", "Australia/Brisbane"},
    {"E. Europe", "Europe/Minsk"},
    {"E. South America", "America/Sao_Paulo"},
    {"East_Timor", "Asia/Dili"},
    {"Easter", "Pacific/Easter"},
    {"Eastern", "America/New_York"},
    {"Ecuador", "America/Guayaquil"},
    {"Egypt", "Africa/Cairo"},
    {"Ekaterinburg", "Asia/Yekaterinburg"},
    {"Europe_Central", "Europe/Berlin"},
    {"Europe_Eastern", "Europe/Helsinki"},
    {"Europe_Western", "Africa/Casablanca"},
    {"FLE", "Europe/Kiev"},
    {"Falkland", "Atlantic/Stanley"},
    {"Fiji", "Pacific/Fiji"},
    {"French_Guiana", "America/Cayenne"},
    {"French_Southern", "Indian/Kerguelen"},
    {"Frunze", "Asia/Bishkek"},
    {"GMT", "Europe/London"},
    {"GTB", "Europe/Istanbul"},
    {"Galapagos", "Pacific/Galapagos"},
    {"Gambier", "Pacific/Gambier"},
    {"Georgia", "Asia/Tbilisi"},
    {"Georgian", "Asia/Tbilisi"},
    {"Gilbert_Islands", "Pacific/Tarawa"},
    {"Greenland", "America/Godthab"},
    {"Greenland_Central", "America/Scoresbysund"},
    {"Greenland_Eastern", "America/Scoresbysund"},
    {"Greenland_Western", "America/Godthab"},
    {"Greenwich", "Africa/Casablanca"},
    {"Guam", "Pacific/Guam"},
    {"Gulf", "Asia/Dubai"},
    {"Guyana", "America/Guyana"},
    {"Hawaii", "Pacific/Honolulu"},
    {"Hawaii_Aleutian", "Pacific/Honolulu"},
    {"Hawaiian", "Pacific/Honolulu"},
    {"Hong_Kong", "Asia/Hong_Kong"},
    {"Hovd", "Asia/Hovd"},
    {"India", "Asia/Kolkata"},
    {"Indian_Ocean", "Indian/Chagos"},
    {"Indochina", "Asia/Bangkok"},
    {"Indonesia_Central", "Asia/Makassar"},
    {"Indonesia_Eastern", "Asia/Jayapura"},
    {"Indonesia_Western", "Asia/Jakarta"},
    {"Iran", "Asia/Tehran"},
    {"Irish", "Europe/Dublin"},
    {"Irkutsk", "Asia/Irkutsk"},
    {"Israel", "Asia/Jerusalem"},
    {"Japan", "Asia/Tokyo"},
    {"Jerusalem", "Asia/Jerusalem"},
    {"Jordan", "Asia/Amman"},
    {"Kamchatka", "Asia/Kamchatka"},
    {"Karachi", "Asia/Karachi"},
    {"Kashgar", "Asia/Kashgar"},
    {"Kazakhstan_Eastern", "Asia/Almaty"},
    {"Kazakhstan_Western", "Asia/Aqtau"},
    {"Kizilorda", "Asia/Qyzylorda"},
    {"Korea", "Asia/Seoul"},
    {"Kosrae", "Pacific/Kosrae"},
    {"Krasnoyarsk", "Asia/Krasnoyarsk"},
    {"Kuybyshev", "Europe/Samara"},
    {"Kwajalein", "Pacific/Kwajalein"},
    {"Kyrgystan", "Asia/Bishkek"},
    {"Lanka", "Asia/Colombo"},
    {"Liberia", "Africa/Monrovia"},
    {"Line_Islands", "Pacific/Kiritimati"},
    {"Long_Shu", "Asia/Chongqing"},
    {"Lord_Howe", "Australia/Lord_Howe"},
    {"Macau", "Asia/Macau"},
    {"Magadan", "Asia/Magadan"},
    {"Malaya", "Asia/Kuala_Lumpur"},
    {"Malaysia", "Asia/Kuching"},
    {"Maldives", "Indian/Maldives"},
    {"Marquesas", "Pacific/Marquesas"},
    {"Marshall_Islands", "Pacific/Majuro"},
    {"Mauritius", "Indian/Mauritius"},
    {"Mawson", "Antarctica/Mawson"},
    {"Mexico", "America/Mexico_City"},
    {"Mid-Atlantic", "Atlantic/South_Georgia"},
    {"Middle East", "Asia/Beirut"},
    {"Mongolia", "Asia/Ulaanbaatar"},
    {"Montevideo", "America/Montevideo"},
    {"Moscow", "Europe/Moscow"},
    {"Mountain", "America/Denver"},
    {"Myanmar", "Asia/Rangoon"},
    {"N. Central Asia", "Asia/Novosibirsk"},
    {"Namibia", "Africa/Windhoek"},
    {"Nauru", "Pacific/Nauru"},
    {"Nepal", "Asia/Katmandu"},
    {"New Zealand", "Pacific/Auckland"},
    {"New_Caledonia", "Pacific/Noumea"},
    {"New_Zealand", "Pacific/Auckland"},
    {"Newfoundland", "America/St_Johns"},
    {"Niue", "Pacific/Niue"},
    {"Norfolk", "Pacific/Norfolk"},
    {"Noronha", "America/Noronha"},
    {"North Asia", "Asia/Krasnoyarsk"},
    {"North Asia East", "Asia/Irkutsk"},
    {"North_Mariana", "Pacific/Saipan"},
    {"Novosibirsk", "Asia/Novosibirsk"},
    {"Omsk", "Asia/Omsk"},
    {"Oral", "Asia/Oral"},
    {"Pacific", "America/Los_Angeles"},
    {"Pacific SA", "America/Santiago"},
    {"Pakistan", "Asia/Karachi"},
    {"Palau", "Pacific/Palau"},
    {"Papua_New_Guinea", "Pacific/Port_Moresby"},
    {"Paraguay", "America/Asuncion"},
    {"Peru", "America/Lima"},
    {"Philippines", "Asia/Manila"},
    {"Phoenix_Islands", "Pacific/Enderbury"},
    {"Pierre_Miquelon", "America/Miquelon"},
    {"Pitcairn", "Pacific/Pitcairn"},
    {"Ponape", "Pacific/Ponape"},
    {"Qyzylorda", "Asia/Qyzylorda"},
    {"Reunion", "Indian/Reunion"},
    {"Romance", "Europe/Paris"},
    {"Rothera", "Antarctica/Rothera"},
    {"Russian", "Europe/Moscow"},
    {"SA Eastern", "Etc/GMT+3"},
    {"SA Pacific", "America/Bogota"},
    {"SA Western", "America/La_Paz"},
    {"SE Asia", "Asia/Bangkok"},
    {"Sakhalin", "Asia/Sakhalin"},
    {"Samara", "Europe/Samara"},
    {"Samarkand", "Asia/Samarkand"},
    {"Samoa", "Pacific/Apia"},
    {"Seychelles", "Indian/Mahe"},
    {"Shevchenko", "Asia/Aqtau"},
    {"Singapore", "Asia/Singapore"},
    {"Solomon", "Pacific/Guadalcanal"},
    {"South Africa", "Africa/Johannesburg"},
    {"South_Georgia", "Atlantic/South_Georgia"},
    {"Sri Lanka", "Asia/Colombo"},
    {"Suriname", "America/Paramaribo"},
    {"Sverdlovsk", "Asia/Yekaterinburg"},
    {"Syowa", "Antarctica/Syowa"},
    {"Tahiti", "Pacific/Tahiti"},
    {"Taipei", "Asia/Taipei"},
    {"Tajikistan", "Asia/Dushanbe"},
    {"Tashkent", "Asia/Tashkent"},
    {"Tasmania", "Australia/Hobart"},
    {"Tbilisi", "Asia/Tbilisi"},
    {"Tokelau", "Pacific/Fakaofo"},
    {"Tokyo", "Asia/Tokyo"},
    {"Tonga", "Pacific/Tongatapu"},
    {"Truk", "Pacific/Truk"},
    {"Turkey", "Europe/Istanbul"},
    {"Turkmenistan", "Asia/Ashgabat"},
    {"Tuvalu", "Pacific/Funafuti"},
    {"Uralsk", "Asia/Oral"},
    {"Uruguay", "America/Montevideo"},
    {"Urumqi", "Asia/Urumqi"},
    {"Uzbekistan", "Asia/Tashkent"},
    {"Vanuatu", "Pacific/Efate"},
    {"Venezuela", "America/Caracas"},
    {"Vladivostok", "Asia/Vladivostok"},
    {"Volgograd", "Europe/Volgograd"},
    {"Vostok", "Antarctica/Vostok"},
    {"W. Australia", "Australia/Perth"},
    {"W. Central Africa", "Africa/Lagos"},
    {"W. Europe", "Europe/Berlin"},
    {"Wake", "Pacific/Wake"},
    {"Wallis", "Pacific/Wallis"},
    {"West Asia", "Asia/Karachi"},
    {"West Pacific", "Pacific/Port_Moresby"},
    {"Yakutsk", "Asia/Yakutsk"},
    {"Yekaterinburg", "Asia/Yekaterinburg"},
    {"Yerevan", "Asia/Yerevan"},
    {"Yukon", "America/Yakutat"},
};

namespace {

bool endsWith(const char* name, size_t len, const char* suffix, size_t* stem) {
  const size_t n = std::strlen(suffix);
  if (len < n || std::memcmp(name + len - n, suffix, n) != 0) return false;
  *stem = len - n;
  return true;
}

bool stemIs(const char* name, size_t stem, const char* word) {
  return std::strlen(word) == stem && std::memcmp(name, word, stem) == 0;
}

const char* lookUp(const char* name, size_t len) {
  long lo = 0;
  long hi = static_cast<long>(SYSTEM_ZONE_NAME_COUNT) - 1;
  while (lo <= hi) {
    const long mid = (lo + hi) / 2;
    const char* row = SYSTEM_ZONE_NAMES[mid].systemName;
    int order = std::strncmp(name, row, len);
    if (order == 0 && row[len] != '\0') order = -1;
    if (order == 0) return SYSTEM_ZONE_NAMES[mid].zoneinfoName;
    if (order < 0) {
      hi = mid - 1;
    } else {
      lo = mid + 1;
    }
  }
  return nullptr;
}

// A name whose " Standard Time" or " Daylight Time" is already cut off.
const char* lookUpStem(const char* name, size_t stem) {
  if (stem >= 3 && std::memcmp(name, "US ", 3) == 0) {
    if (stemIs(name, stem, "US Mountain")) return "America/Phoenix";
    if (stemIs(name, stem, "US Eastern")) return "Etc/GMT+5";
    return lookUp(name + 3, stem - 3);
  }
  return lookUp(name, stem);
}

}  // namespace

const char* mapSystemZoneName(const char* name) {
  kassert(name != __null);
  const size_t len = std::strlen(name);
  size_t stem = 0;
  if (endsWith(name, len, " Standard Time", &stem)) return lookUpStem(name, stem);
  if (endsWith(name, len, " Daylight Time", &stem)) {
    if (stemIs(name, stem, "Greenwich")) return "Europe/London";
    return lookUpStem(name, stem);
  }
  if (endsWith(name, len, " Standard Time (Mexico)", &stem) ||
      endsWith(name, len, " Daylight Time (Mexico)", &stem)) {
    if (stemIs(name, stem, "Central")) return "America/Mexico_City";
    if (stemIs(name, stem, "Mountain")) return "America/Chihuahua";
    if (stemIs(name, stem, "Pacific")) return "America/Tijuana";
    return nullptr;
  }
  if (std::strcmp(name, "Mexico Standard Time 2") == 0 ||
      std::strcmp(name, "Mexico Daylight Time 2") == 0) {
    return "America/Chihuahua";
  }
  if (std::strcmp(name, "GMT") == 0 || std::strcmp(name, "Greenwich") == 0) return nullptr;
  return lookUp(name, len);
}
