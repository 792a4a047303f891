// Log lines of many kinds against the pattern file as it ships: each line is
// read by a fresh parser at a fixed clock, with TZ UTC, and must give the
// instant its writer meant.

#include <gtest/gtest.h>

#include <string>

#include "util/DateParser.h"
#include "util/testing/DateParserTestSupport.h"
#include "util/testing/FixedClock.h"
#include "util/testing/GuessTestSupport.h"
#include "util/testing/XmlTestInit.h"

namespace {

// 2026-06-15 12:00:00 UTC, a Monday.
const Timeval NOW(1781524800, 0);
// 2026-06-15 11:58:01 UTC.
constexpr int64_t T = 1781524681;

class ZoneEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_TRUE(useStagedZonesWithGmtDefault()) << "build stage_zoneinfo"; }
};
const bool kZoneEnvironmentAdded =
    (::testing::AddGlobalTestEnvironment(new ZoneEnvironment), true);

struct Case {
  const char* line;
  int64_t seconds;
  int64_t usec;
};

void expectLines(const Case* begin, const Case* end, const Timeval& now = NOW) {
  ScopedFixedClock clock(now);
  for (const Case* c = begin; c != end; ++c) {
    ShippedDateParser p(false);
    Timeval out;
    int ts, te, ds, de;
    const bool ok = p->parseDate(out, StrSegment(c->line), now, ts, te, ds, de, nullptr);
    EXPECT_TRUE(ok) << c->line;
    if (ok) {
      EXPECT_EQ(Timeval(c->seconds, c->usec), out)
          << c->line << "\n  got " << out.tv_sec << "." << out.tv_usec << " (" << out.tv_sec - c->seconds
          << " s off)";
    }
  }
}

TEST(DateParserShipped, CommonLogShapes) {
  const Case kCases[] = {
      {"Jun 15 11:58:01 host sshd[123]: Accepted publickey", T, 0},
      {"2026-06-15T11:58:01.123Z INFO service started", T, 123000},
      {"2026-06-15T13:58:01+02:00 msg", T, 0},
      {"2026-06-15T17:28:01+0530 msg", T, 0},
      {"127.0.0.1 - - [15/Jun/2026:11:58:01 +0000] \"GET / HTTP/1.1\" 200 12", T, 0},
      {"10.0.0.1 - bob [15/Jun/2026:04:58:01 -0700] \"POST /x HTTP/1.1\" 500 0", T, 0},
      {"[Mon Jun 15 11:58:01.123456 2026] [core:error] [pid 1] msg", T, 123456},
      {"2026-06-15 11:58:01,123 ERROR [main] com.example.App - boom", T, 123000},
      {"2026-06-15 11:58:01,123 - root - INFO - message", T, 123000},
      {"2026/06/15 11:58:01 [error] 123#0: *1 open() failed", T, 0},
      {"2026-06-15 11:58:01.123456789 +0000 UTC m=+0.001", T, 123456},
      {"I0615 11:58:01.123456    1 main.go:10] msg", T, 123456},
      {"260615 11:58:01 [Note] mysqld: ready for connections.", T, 0},
      {"06/15/2026 11:58:01 AM service", T, 0},
      {"6/15/2026 11:58:01 PM service", T + 12 * 3600, 0},
      {"06/15/2026 12:05:01 AM midnight", 1781481901, 0},
      {"Mon, 15 Jun 2026 11:58:01 +0000 mail", T, 0},
      {"Mon Jun 15 11:58:01 UTC 2026 java", T, 0},
      {"1781524681 event", T, 0},
      {"1781524681123 millis", T, 123000},
      {"1781524681.250 fraction", T, 250000},
      {"<34>1 2026-06-15T11:58:01.003Z host app - - msg", T, 3000},
      {"@400000006a2fe8c900000000 tai64n", T, 0},
      {"15.06.2026 11:58:01 dotted", T, 0},
      {"15-Jun-2026 11:58:01.123 INFO [main] tomcat", T, 123000},
      {"Jun 15, 2026 11:58:01 AM org.example.Main run", T, 0},
      {"2026-06-15 11:58:01.123 UTC [123] LOG:  checkpoint", T, 123000},
      {"2026-06-15 11:58:01 PDT pacific", 1781549881, 0},
      {"Jun 15 2026 11:58:01 host", T, 0},
      {"*Jun 15 11:58:01.123: %LINK-3-UPDOWN: Interface", T, 123000},
      {"15/06/2026 11:58:01 day first", T, 0},
      {"2026-06-15 11:58 minutes only", T - 1, 0},
      {"[Mon Jun 15 11:58:01 2026] usb 1-1: new device", T, 0},
      {"2026.06.15 11:58:01 dotted ymd", T, 0},
      {"2026-06-15 11:58:01.123456+00:00 django", T, 123456},
      {"[2026-06-15 11:58:01] local.ERROR: failed", T, 0},
      {"time=\"2026-06-15T11:58:01Z\" level=info msg=\"ok\"", T, 0},
      {"ts=2026-06-15T11:58:01.123Z caller=main.go:1 msg=up", T, 123000},
      {"Mon Jun 15 2026 11:58:01 GMT+0000 (Coordinated Universal Time)", T, 0},
      {"2026-166 11:58:01 ordinal", T, 0},
      {"2026-06-15 11:58:01 +0200 offset", T - 7200, 0},
      {"20260615115801 packed", T, 0},
      {"2026-06-15 11:58:01.5 half", T, 500000},
      {"Jun 15 11:58:01 2026 trailing year", T, 0},
      {"15 Jun 2026 11:58:01 day month year", T, 0},
      {"2026-Jun-15 11:58:01 ymd words", T, 0},
      {"06-15-2026 11:58:01 dashes", T, 0},
      {"June 15, 2026 11:58:01 long month", T, 0},
      {"2026-06-15 11:58:01 AM ampm after iso", T, 0},
      {"2026-06-15 11:58:01 PM pm after iso", T + 12 * 3600, 0},
      {"Mon Jun 15 11:58:01 2026 weekday first", T, 0},
      {"2026-06-15T11:58:01 no zone", T, 0},
      {"Jun 15 11:58:01.123456 host kernel", T, 123456},
  };
  expectLines(std::begin(kCases), std::end(kCases));
}

TEST(DateParserShipped, HarderLines) {
  const Case kCases[] = {
      {"192.168.10.11 - - [15/Jun/2026:11:58:01 +0000] \"GET /v1.2.3/x HTTP/1.1\" 200", T, 0},
      {"10.11.12.13 2026-06-15 11:58:01 ip first", T, 0},
      {"version 10.12.14 started at 2026-06-15 11:58:01", T, 0},
      {"pid=12345 uptime 01:02:03 ts 2026-06-15 11:58:01 z", T, 0},
      {"INFO  [2026-06-15 11:58:01.123] worker-1 took 12:34 ms", T, 123000},
      {"WARN 2026-06-15T11:58:01.123456Z something", T, 123456},
      {"level=error ts=2026-06-15T11:58:01Z msg=\"fail at 10:00\"", T, 0},
      {"2026-06-15 11:58:01 UTC", T, 0},
      {"2026-06-15 11:58:01 GMT", T, 0},
      {"2026-06-15 11:58:01 EST", T + 5 * 3600, 0},
      {"2026-06-15 11:58:01 CEST", T - 2 * 3600, 0},
      {"2026-06-15 11:58:01Z", T, 0},
      {"2026-06-15 11:58:01 -05:00", T + 5 * 3600, 0},
      {"Mon Jun 15 11:58:01 CEST 2026", T - 2 * 3600, 0},
      {"Jun 15 11:58:01 host app[1]: copied 2026-01-01 backup", T, 0},
      {"Jun  5 11:58:01 host single digit day", T - 10 * 86400, 0},
      {"Jun 15 11:58:01.123+02:00 host", T - 7200, 123000},
      {"2026-06-15 11:58:01.123456789 nanos", T, 123456},
      {"15/Jun/2026 11:58:01", T, 0},
      {"11:58:01 2026-06-15 time first", T, 0},
      {"11:58:01 Jun 15 2026 time first words", T, 0},
      {"11:58:01.123 [main] time only", T, 123000},
      {"Mon Jun 15 11:58:01 2026", T, 0},
      {"2026-06-15 11:58:01 0400 bare digits after", T, 0},
      {"[15/06/2026 11:58:01] bracketed", T, 0},
      {"2026-06-15 23:58:01 later today", T + 12 * 3600, 0},
      {"Jun 15 23:58:01 later today yearless", T + 12 * 3600, 0},
      {"Jun 14 23:58:01 yesterday yearless", T - 12 * 3600, 0},
      {"Dec 31 23:59:59 host last year", 1798761599 - 365 * 86400, 0},
      {"06/15/26 11:58:01 short year", T, 0},
      {"15-06-2026 11:58:01 day first dashes", T, 0},
      {"2026-06-15 11:58:01.000 zero millis", T, 0},
      {"2026-06-15 11:58:01,999 comma millis", T, 999000},
      {"1781524681.123456 micros fraction", T, 123456},
      {"1781524681123456 micros", T, 123456},
      {"timestamp=1781524681 key", T, 0},
      {"2026-06-15 11:58:01 <- 150 chars ahead is fine", T, 0},
      {"jun 15 11:58:01 lower case month", T, 0},
      {"JUN 15 11:58:01 upper case month", T, 0},
      {"2026-06-15 11:58:01 am lower ampm", T, 0},
      {"Monday, June 15, 2026 11:58:01 AM", T, 0},
      {"15 June 2026 11:58:01", T, 0},
      {"2026\u5e746\u670815\u65e5 11:58:01", T, 0},
  };
  expectLines(std::begin(kCases), std::end(kCases));
}

TEST(DateParserShipped, ApplicationLogs) {
  const Case kCases[] = {
      {"15 Jun 11:58:01 day month time", T, 0},
      {"20260615 11:58:01 packed date", T, 0},
      {"2026-06-15-11.58.01.123456 db2", T, 123456},
      {"15/06/2026:11:58:01 colon joined", T, 0},
      {"15.06.26 11:58:01 short dotted", T, 0},
      {"Mon Jun 15 11:58:01.123 2026 oracle", T, 123000},
      {"Jun 15 2026 11:58:01: %ASA-6-302013: Built", T, 0},
      {"1781524681.123456\tCx1\t10.0.0.1\t5353", T, 123456},
      {"2026-06-15T11:58:01.123456+00:00 host postfix/smtpd[1]: connect", T, 123456},
      {"11:58:01.123 2026-06-15 time then date", T, 123000},
      {"2026-06-15 \xE4\xB8\x8A\xE5\x8D\x88" "11:58:01 morning", T, 0},
      {"2026-06-15 \xE4\xB8\x8B\xE5\x8D\x88" "11:58:01 afternoon", T + 12 * 3600, 0},
      {"1781524681123456789 nanos", T, 123456},
      {"Mon, 15 Jun 2026 11:58:01 GMT http date", T, 0},
      {"#Date: 2026-06-15 11:58:01", T, 0},
      {"2026-06-15T11:58:01.123456789Z stdout F message", T, 123456},
      {"<13>Jun 15 11:58:01 host app: msg", T, 0},
      {"2026-06-15 11:58:01.123 +0530 [main] x", T - 19800, 123000},
      {"[15-Jun-2026 11:58:01 UTC] PHP Warning: x", T, 0},
      {"2026-06-15T11:58:01.123+0000 I NETWORK  [listener]", T, 123000},
      {"1:M 15 Jun 2026 11:58:01.123 * Ready to accept connections", T, 123000},
      {"[2026-06-15T11:58:01,123][INFO ][o.e.n.Node] started", T, 123000},
      {"[2026-06-15 11:58:01,123] INFO [KafkaServer id=1] started", T, 123000},
      {"Jun 15 11:58:01 lb haproxy[1]: 10.0.0.1:5000 [15/Jun/2026:11:58:01.123] fe be", T, 123000},
      {"INFO  [main] 2026-06-15 11:58:01,123 CassandraDaemon.java:1", T, 123000},
      {"[1781524681] SERVICE ALERT: host;svc;OK", T, 0},
      {"2026-06-15 11:58:01 +0000 Puppet (notice): applied", T, 0},
      {"2026/06/15 11:58:01.123 veritas", T, 123000},
      {"2026-06-15T11:58:01.123+0000: 1.234: [GC (Allocation Failure)", T, 123000},
      {"15.06.2026 11:58:01.123 sap", T, 123000},
      {"2026-06-15 11:58:01 UTC+2 x", T, 0},
      {"Jun 15 11:58:01 ip-10-0-0-1 kernel: [12345.678901] eth0: up", T, 0},
      {"2026-06-15 11:58:01.123Z", T, 123000},
      {"2026-06-15 11:58:01Z INFO", T, 0},
      {"2026-06-15T11:58Z minutes zulu", T - 1, 0},
      {"Jun 15 11:58:01.123456789 nanos syslog", T, 123456},
      {"2026-06-15T11:58:01-04:00[America/New_York] java zoned", T + 4 * 3600, 0},
      {"2026-06-15 11:58:01 EDT", T + 4 * 3600, 0},
      {"2026-06-15 11:58:01 +05:45 nepal", T - 20700, 0},
      {"2026-06-15 11:58:01 -0930 marquesas", T + 34200, 0},
      {"2026-06-15 11:58:01 +14:00 kiribati", T - 14 * 3600, 0},
      {"2026-06-15 11:58:01 JST", T - 9 * 3600, 0},
      {"2026-06-15 11:58:01 IST", T - 19800, 0},
      {"2026-06-15 11:58:01 BST", T - 3600, 0},
      {"2026-06-15 11:58:01 AEST", T - 10 * 3600, 0},
      {"2026-06-15 11:58:01 MSK", T - 3 * 3600, 0},
  };
  expectLines(std::begin(kCases), std::end(kCases));
}

// Early in January a year-less December date belongs to the year before;
// late in December the same dates stay in the current year.
TEST(DateParserShipped, YearlessDatesAroundNewYear) {
  const Timeval newYear(1798761600 + 3600, 0);  // 2027-01-01 01:00:00
  const Case kJanuary[] = {
      {"Dec 31 23:59:59 host last second", 1798761599, 0},
      {"Jan  1 00:30:00 host first minutes", 1798763400, 0},
      {"12-31 23:59:59.500 I level mmdd", 1798761599, 500000},
  };
  expectLines(std::begin(kJanuary), std::end(kJanuary), newYear);
  const Timeval lateDecember(1798761600 - 3600, 0);  // 2026-12-31 23:00:00
  const Case kDecember[] = {
      {"Dec 31 22:59:59 host", 1798757999, 0},
      {"Dec 25 10:00:00 host christmas", 1798192800, 0},
  };
  expectLines(std::begin(kDecember), std::end(kDecember), lateDecember);
}

TEST(DateParserShipped, StampLateInTheLine) {
  // 141 characters: the stamp ends inside the default lookahead of 150
  const std::string line = std::string(120, '-') + " 2026-06-15 11:58:01";
  const Case kCases[] = {
      {line.c_str(), T, 0},
  };
  expectLines(std::begin(kCases), std::end(kCases));
}

TEST(DateParserShipped, StructuredAndZonedLines) {
  const Case kCases[] = {
      {"2026-06-15 11:58:01 (UTC) paren", T, 0},
      {"2026-06-15T11:58:01,123+02:00 comma", T - 7200, 123000},
      {"2026-06-15T11:58:01.123456789+05:30 nanos", T - 19800, 123456},
      {"Jun 15 11:58:01 UTC host", T, 0},
      {"15/Jun/2026 11:58:01 +0200", T - 7200, 0},
      {"Mon Jun 15 11:58:01 PDT 2026", T + 7 * 3600, 0},
      {"Jun 15 04:58:01 PDT host", T, 0},
      {"2026-06-15 11:58:01,123 +0200 x", T - 7200, 123000},
      {"[11:58:01] time only", T, 0},
      {"{\"ts\":1781524681.123,\"msg\":\"x\"}", T, 123000},
      {"{\"time\":\"2026-06-15T11:58:01.123Z\",\"level\":\"info\"}", T, 123000},
      {"{\"@timestamp\":\"2026-06-15T11:58:01.123+00:00\"}", T, 123000},
      {"{\"ts\":1781524681123,\"msg\":\"x\"}", T, 123000},
      {"{\"timestamp\":1781524681,\"msg\":\"x\"}", T, 0},
      {"[15/Jun/2026:11:58:01.123456 +0000] apache usec", T, 123456},
      {"2026-06-15 11:58:01.123 CEST", T - 7200, 123000},
      {"Mon 15 Jun 2026 11:58:01 AM UTC", T, 0},
      {"Mon Jun 15 11:58:01 AM UTC 2026", T, 0},
      {"15.06.2026, 11:58:01 comma", T, 0},
      {"6/15/26 11:58 AM excel", T - 1, 0},
      {"June 15th 2026, 11:58:01 am", T, 0},
      {"2026-06-15 at 11:58:01", T, 0},
      {"Jun 15 11:58:01.123 UTC: %SYS-5-CONFIG_I", T, 123000},
      {"level=info time=1781524681 msg=x", T, 0},
      {"2026-06-15 11:58:01.123 +02:00 x", T - 7200, 123000},
      {"15-Jun-26 11:58:01 short", T, 0},
      {"2026/166 11:58:01 ordinal slash", T, 0},
      {"Jun 15 2026 11:58:01.123 PDT", T + 7 * 3600, 123000},
      {"Monday 15 June 2026 11:58:01", T, 0},
      {"2026-06-15 11:58:01 UTC+02:00", T - 7200, 0},
      {"2026-06-15 11:58:01 GMT-07:00", T + 7 * 3600, 0},
  };
  expectLines(std::begin(kCases), std::end(kCases));
}

// A second stamp in the message body does not outrank the one that leads
// the line.
TEST(DateParserShipped, LeadingStampBeatsOneInTheMessage) {
  const Case kCases[] = {
      {"<13>1 2026-06-15T11:58:01Z host app 1 - [meta time=\"2026-06-01T00:00:00Z\"] m", T, 0},
      {"2026-06-15 11:58:01 WARN retry scheduled for 2026-06-16T00:00:00Z", T, 0},
      {"[2026-06-15 11:58:01] request took 2026-06-15 11:00:00.123456", T, 0},
  };
  expectLines(std::begin(kCases), std::end(kCases));
}

}  // namespace
