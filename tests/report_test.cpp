// kelvo-report against kelvo's own commands on a server built here, by report_check.py.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "sim_server.h"

namespace {

// Volumes with a leak, without "share/", unmeasurable (no folder), in no space; an empty slot, a
// channel without a session, failed queries; null ids in and out of the 30 days and in stream 0;
// profiles that spaceinfo shows as blocks A, B, A. Period times in hours from now.
const char* const kServer = R"(
INSERT INTO settings VALUES ('trace', '1');
INSERT INTO spaces VALUES (uuid(1), 'Main', uuid(10), 100000, 50000, 0, 1),
  (uuid(2), 'Cold', uuid(11), 20000, 17000, 6, 0), (uuid(3), 'Empty', uuid(12), 0, 0, 0, 0);
INSERT INTO volumes VALUES (uuid(20), uuid(10), 'v/share/Rec1', 1, 0, 0, 3000, 60, ''),
  (uuid(21), uuid(10), 'v/share/Rec2', 2, 0, 0, 100, 93, ''),
  (uuid(22), uuid(11), 'v/disk3', 3, 0, 0, 40, 1, ''),
  (uuid(23), uuid(11), 'v/share/Spare1', 4, 1, 8, 50, 10, ''),
  (uuid(24), uuid(99), 'v/share/Lone', 5, 0, 2, 10, 1, '');
INSERT INTO volume_channels VALUES (1, 0, ''), (1, 2, ''), (2, 2, ''), (2, 1, ''), (2, 1, ''),
  (3, 3, ''), (5, 40, '');
INSERT INTO channels VALUES (0, sid(1)), (2, sid(3)), (3, sid(4)), (5, sid(6)),
  (1, '99999999999999999999999999999999');
INSERT INTO faults VALUES ('create_channel_session', '5', -1), ('query_time_periods', '2:4:1', -1),
  ('query_time_periods', '2:4:0', -1);
INSERT INTO periods VALUES (0, 4, 1, -48, -47, sto(1), 'p1', 100), (0, 4, 1, -960, -959, NULL, 'p2', 0),
  (0, 4, 0, -120, -119, NULL, 'p3', 0), (0, 1, 2, -72, -71, NULL, 'p4', 0),
  (0, 1, 1, -96, -95, sto(5), 'p5', 30), (0, 4, 2, -144, -143, sto(2), 'p6', 20),
  (3, 1, 4, -240, -239, sto(4), 'p7', 7), (3, 4, 1, -744, -696, sto(4), 'p8', 5),
  (2, 1, 3, -24, -23, sto(3), 'p9', 11);
UPDATE periods SET start_ms = 1710930600000 + start_ms * 3600000, end_ms = 1710930600000 + end_ms * 3600000;
INSERT INTO profiles VALUES (0, sid(1), uuid(1), uuid(10), uuid(20), sto(1)),
  (2, sid(3), uuid(1), uuid(10), uuid(20), sto(3)), (0, sid(1), uuid(1), uuid(10), uuid(21), sto(2)),
  (3, sid(4), uuid(2), uuid(11), uuid(22), sto(4)), (0, sid(1), uuid(2), uuid(11), uuid(22), sto(5)),
  (7, sid(8), uuid(1), uuid(10), uuid(20), sto(6));
)";

TEST(Report, AgreesWithKelvoChangesNothingAndParses) {
    kt::SimServer s;
    s.exec(kServer);
    s.exec("UPDATE volumes SET path = '" + s.root() + "/' || path");
    std::istringstream rows(s.query("SELECT uuid, path FROM volumes WHERE volume_no != 4"));
    for (std::string uuid, path; std::getline(rows, uuid, '|') && std::getline(rows, path);) {
        s.make_dir(s.fsu_folder(path, uuid) + "/preallocate");
        std::ofstream(s.fsu_folder(path, uuid) + "/preallocate/fill") << std::string(3 << 20, 'x');
    }
    const char* const check = KELVO_REPORT_CHECK;  // the comparisons: see its header
    kt::expect_output(s.run_at(1710930600, {KELVO_BINARY, KELVO_REPORT_BINARY}, {}, check), "");
}

}  // namespace
