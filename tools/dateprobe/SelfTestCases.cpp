#include "tools/dateprobe/SelfTestCase.h"

// Columns: year, month, day, hour, minute, second, zone_offset, line.
// A line that names its zone is listed either in its own wall time, with
// the zone's offset, or in UTC with 0. Weekday names agree with their dates,
// except on the one row noted below.
const SelfTestCase selfTestCases[SELF_TEST_CASE_COUNT] = {
    // Digits that look like a date and are none: file names, versions,
    // addresses, key=value lines. No time of day anywhere, no ten-digit run.
    {0, 0, 0, 0, 0, 0, 0, "Opening upload_2231_part07.dat for reading"},
    {0, 0, 0, 0, 0, 0, 0, "Rotated app-server_0412_17.log to archive 3"},
    {0, 0, 0, 0, 0, 0, 0, "Loaded module version 4.12.7 build 2213"},
    {0, 0, 0, 0, 0, 0, 0, "client-agent/3.0.12 (build 5121; rev 88) started"},
    {0, 0, 0, 0, 0, 0, 0, "Refused connect from host-a port 40512 after 3 tries"},
    {0, 0, 0, 0, 0, 0, 0, "peer host-b:5060 via host-c:5061 cseq 1204"},
    {0, 0, 0, 0, 0, 0, 0, "status=200 bytes=5120 elapsed_ms=87 retries=0"},
    {0, 0, 0, 0, 0, 0, 0, "id=1187 seq=42 level=3 code=77 user=user-b"},
    {0, 0, 0, 0, 0, 0, 0, "queue=7 depth=1024 max=4096 ratio=25/100"},
    {0, 0, 0, 0, 0, 0, 0, "a=rtpmap:0 PCMU/8000"},
    {0, 0, 0, 0, 0, 0, 0, "28 [ADD5_NAME] = 0:[] "},

    // Syslog without a year. These two run while no earlier row has set a
    // previous time, so the year comes from the clock alone: this year, or
    // last year for a date more than 3 days ahead. The second shares the
    // first's day, so the first's year stands as its context.
    {-1, 3, 14, 9, 26, 53, -1, "Mar 14 09:26:53 host-a authd[2231]: session opened for user-b"},
    {-1, 3, 14, 9, 26, 58, -1, "Mar 14 09:26:58 host-a authd[2231]: session closed for user-b"},

    // Kernel banners, the date behind a long prefix.
    {2008, 1, 16, 15, 43, 12, -28800,
     "kernel: OS release 2.6.18-92 (builder at build-host) (cc version 4.1.2) #1 SMP Wed Jan "
     "16 15:43:12 PST 2008"},
    {2008, 1, 17, 6, 20, 41, -1,
     "boot: loader 1.4 stage 2, kernel image 3, build #7 SMP Thu Jan 17 06:20:41 2008 on node-3"},

    // Bracketed server time with a zone name.
    {2008, 1, 17, 8, 12, 45, -28800, "[Thu Jan 17 08:12:45 PST 2008] [notice] worker pool resized"},
    {2008, 6, 13, 17, 40, 2, -25200, "[Fri Jun 13 17:40:02 PDT 2008] [error] request queue full"},
    {2008, 7, 15, 11, 5, 33, -14400, "[Tue Jul 15 11:05:33 EDT 2008] [warn] slow response from host-b"},

    // Web access logs with a numeric zone; the last three carry more fields
    // ahead of the timestamp.
    {2008, 1, 17, 10, 21, 7, -28800,
     "host-a - - [17/Jan/2008:10:21:07 -0800] \"GET /status HTTP/1.1\" 200 512"},
    {2008, 1, 18, 23, 59, 59, -28800,
     "host-b - user-b [18/Jan/2008:23:59:59 -0800] \"POST /login HTTP/1.1\" 302 0"},
    {2008, 1, 5, 1, 15, 44, -28800,
     "host-f - - [05/Jan/2008:01:15:44 -0800] \"GET /missing HTTP/1.1\" 404 0"},
    {2008, 7, 21, 6, 30, 15, -25200,
     "app-server 8443 host-c - user-c [21/Jul/2008:06:30:15 -0700] \"GET /report HTTP/1.1\" 200 "
     "20481"},
    {2008, 7, 22, 14, 2, 11, -14400,
     "host-d 443 - - - [22/Jul/2008:14:02:11 -0400] \"HEAD /health HTTP/1.1\" 204 0"},
    {2008, 7, 23, 19, 45, 0, 0,
     "proxy-1 3128 1200 host-e - [23/Jul/2008:19:45:00 +0000] \"GET /feed HTTP/1.0\" 200 733"},

    // ISO dates with a comma before the milliseconds.
    {2008, 2, 4, 13, 27, 9, -1, "2008-02-04 13:27:09,412 INFO  [main] scheduler started"},
    {2008, 2, 4, 13, 27, 10, -1, "2008-02-04 13:27:10,007 DEBUG [pool-2-thread-1] task 17 queued"},
    {2008, 2, 5, 7, 1, 55, -1, "INFO  2008-02-05 07:01:55,913 [worker-3] cache warmed"},
    {2008, 2, 5, 7, 1, 58, -28800, "2008-02-05 07:01:58,100 -0800 [worker-3] cache flushed"},
    {2008, 2, 6, 18, 44, 2, -1, "ERROR 2008-02-06 18:44:02,500 [worker-4] retry budget spent"},

    // Hundredths of a second with +0000.
    {2008, 2, 12, 9, 15, 42, 0, "2008-02-12 09:15:42.57 +0000 worker-3 job 88 finished"},
    {2008, 2, 12, 9, 15, 43, 0, "2008/02/12 09:15:43.06 +0000 batch step 4 done"},
    {2008, 2, 13, 0, 0, 0, 0, "2008-02-13 00:00:00.01 +0000 rollover 14"},

    // A leading ten-digit epoch, listed in UTC.
    {2008, 2, 15, 10, 40, 0, 0, "1203072000 job=nightly state=start"},
    {2008, 2, 15, 10, 42, 3, 0, "1203072123.456 job=nightly state=running"},
    {2008, 2, 15, 11, 40, 1, 0, "1203075601 job=nightly state=done code=0"},
    {2008, 2, 16, 10, 40, 0, 0, "1203158400 job=weekly state=start"},

    // dd-mm-yyyy.
    {2008, 2, 18, 14, 5, 33, -1, "18-02-2008 14:05:33 backup of volume 2 complete"},
    {2008, 2, 19, 22, 10, 48, -28800, "19-02-2008 22:10:48 -0800 replication lag 12s"},
    {2008, 2, 25, 6, 45, 0, -1, "25-02-2008 06:45:00 backup of volume 3 started"},
    {2008, 2, 26, 17, 30, 12, -1, "26-02-2008 17:30:12 backup of volume 3 verified"},

    // Wdy Mon dd hh:mm:ss[.mmm] yyyy. March 20, 2005 was a Sunday; the
    // weekday does not decide the date.
    {2005, 3, 20, 23, 53, 56, -1, "Mon Mar 20 23:53:56 2005 sdfds 20 TEST"},
    {2008, 2, 20, 11, 22, 33, -1, "Wed Feb 20 11:22:33.456 2008 [main] INFO listener ready"},
    {2008, 2, 21, 7, 59, 58, -1, "Thu Feb 21 07:59:58.001 2008 [worker-2] INFO retry 1 of 5"},
    {2008, 2, 21, 8, 0, 1, -1, "Thu Feb 21 08:00:01.002 2008 [worker-2] WARN retry 2 of 5"},

    // Syslog without a year, read in the context of the row above: the
    // year is 2008 since no date falls more than 3 days before Feb 21.
    {2008, 2, 21, 8, 0, 5, -1, "Feb 21 08:00:05 host-a sched[311]: job 7 started"},
    {2008, 2, 21, 8, 0, 7, -1, "Feb 21 08:00:07 host-a sched[311]: job 7 finished"},
    {2008, 2, 22, 0, 0, 1, -1, "Feb 22 00:00:01 host-b kernel: link 0 up"},

    // mm/dd/yy.
    {2004, 5, 9, 3, 0, 3, -1, "05/09/04 03:00:03 Connection 214657: Received ping "},
    {2008, 2, 27, 16, 44, 19, -1, "02/27/08 16:44:19 Connection 88: Received close "},
    {2008, 3, 15, 4, 5, 6, -1, "03/15/08 04:05:06 Connection 90: Received ping "},
    {2007, 11, 30, 7, 7, 7, -1, "11/30/07 07:07:07 session 19 idle"},
    {2007, 12, 31, 23, 59, 58, -1, "12/31/07 23:59:58 session 20 idle"},

    // RFC 822 dates in GMT.
    {2004, 5, 10, 0, 21, 19, 0, "Date: Mon, 10 May 2004 00:21:19 GMT "},
    {2008, 3, 4, 18, 9, 51, 0, "Last-Modified: Tue, 04 Mar 2008 18:09:51 GMT"},
    {2008, 3, 7, 0, 0, 0, 0, "Expires: Fri, 07 Mar 2008 00:00:00 GMT cache=public"},
    {2008, 3, 8, 12, 30, 45, 0, "Received: by relay-a; Sat, 08 Mar 2008 12:30:45 GMT"},

    // Mon dd, yyyy h:mm:ss AM/PM with a zone name. The name fixes the
    // offset: PST is -0800 even on a date inside daylight saving time.
    {2008, 3, 10, 13, 45, 12, -28800, "Mar 10, 2008 1:45:12 PM PST worker run INFO: batch 3 loaded"},
    {2008, 3, 11, 9, 2, 37, -28800, "Mar 11, 2008 9:02:37 AM PST worker stop INFO: batch 3 closed"},
    {2008, 6, 2, 16, 18, 50, -25200, "Jun 2, 2008 4:18:50 PM PDT worker run INFO: batch 9 loaded"},
    {2008, 6, 3, 11, 59, 59, -25200, "Jun 3, 2008 11:59:59 AM PDT worker stop INFO: batch 9 closed"},

    // A month as a word inside an ISO date; month names are caseless.
    {2008, 3, 17, 10, 11, 12, -1, "2008-Mar-17 10:11:12 queue 4 drained"},
    {2008, 4, 2, 21, 30, 45, -1, "2008-Apr-02 21:30:45.120 queue 5 drained"},
    {2008, 4, 3, 5, 6, 7, -1, "2008-APR-03 05:06:07 queue 6 drained"},

    // A space inside a bracketed date.
    {2008, 4, 8, 7, 35, 21, -1, "[ 2008/04/08 07:35:21 ] loader: 1200 rows"},
    {2008, 4, 8, 7, 35, 29, -1, "[08/Apr/2008 07:35:29] loader: 1400 rows"},
    {2008, 4, 8, 7, 35, 52, -1, "[2008-04-08 07:35:52 ] loader: 1600 rows"},

    // Packed digit runs: yyyymmddhhmmss, with hundredths behind the first.
    {2006, 2, 25, 8, 59, 18, -1, "[ProcId=3944 ] [TimeStamp=2006022508591809]"},
    {2006, 3, 26, 0, 2, 36, -1, "20060326-000236 DEBUG 917554041 : "},
    {2008, 4, 15, 14, 30, 22, -1, "20080415143022 job 12 started"},
    {2008, 4, 15, 14, 31, 9, -1, "20080415T143109 step 2 reached"},
    {2008, 4, 16, 9, 30, 0, -1, "id=77 ts=20080416093000 state=ok"},

    // Julian dates: yyddd and yyyy.ddd. 2008 is a leap year, so day 107 is
    // April 16.
    {2006, 1, 17, 21, 24, 53, -1,
     "N 0000000 UTCB 06017 21:24:53.20 00000290 IEF196I IEF237I JES2 ALLOCATED TO SYSLOG41"},
    {2008, 4, 16, 10, 2, 44, -1, "N 0000000 UTCB 08107 10:02:44.61 00000310 JOB00042 STARTED"},
    {2008, 4, 17, 12, 0, 5, -1, "2008.108 12:00:05 pass 3 telemetry ok"},
    {2008, 4, 18, 23, 59, 59, -1, "2008.109 23:59:59 pass 4 telemetry ok"},

    // Dates split up by a delimiter. The first reads yy/mm/dd behind its
    // prefix and has no seconds.
    {2006, 3, 4, 14, 49, 0, -1, "P3S3-06/03/04-14:49--AL"},
    {2008, 4, 21, 16, 20, 10, -1, "date=2008-04-21;time=16:20:10;status=ok"},
    {2008, 4, 22, 8, 15, 0, -1, "2008/04/22,08:15:00,host-a,login,user-b"},
    {2008, 4, 22, 8, 16, 45, -1, "2008-04-22|08:16:45|host-a|logout"},

    // Dashes inside the date, or between date and time.
    {2005, 9, 26, 19, 20, 12, -1, "05-09-26 19:20:12  InnoDB: Starting shutdown..."},
    {2008, 4, 23, 11, 12, 13, -1, "2008/04/23-11:12:13 sync 4 complete"},
    {2008, 4, 23, 11, 15, 0, -1, "23.04.2008-11:15:00 sync 5 complete"},
    {2008, 4, 23, 11, 20, 31, -1, "2008-04-23-11:20:31 sync 6 complete"},

    // Twelve o'clock: AM is the hour after midnight, PM the hour after noon.
    {2008, 4, 24, 0, 5, 9, -1, "Apr 24, 2008 12:05:09 AM nightly purge started"},
    {2008, 4, 24, 12, 5, 9, -1, "Apr 24, 2008 12:05:09 PM nightly purge finished"},
    {2008, 5, 14, 0, 0, 0, -1, "05/14/2008 12:00:00 AM rollover"},
    {2008, 5, 14, 12, 0, 0, -1, "05/14/2008 12:00:00 PM checkpoint"},

    // Zones given as GMT-0700, PDT and Z; the first three listed in UTC.
    {2008, 9, 29, 20, 15, 0, 0, "2008-09-29 13:15:00 GMT-0700 logType=activity"},
    {2008, 9, 29, 20, 15, 0, 0, "2008-09-29 13:15:00 PDT logType=activity"},
    {2008, 9, 29, 13, 15, 0, 0, "2008-09-29 13:15:00 Z logType=activity"},
    {2008, 9, 30, 8, 1, 2, -25200, "2008-09-30 08:01:02 GMT-0700 logType=audit"},
    {2008, 9, 30, 15, 1, 2, 0, "2008-09-30T15:01:02Z logType=audit"},
};
