// Disc structures inside folders (a copied Blu-ray, DVD or disc recording)
// and the disc codes of the optical drive.
#pragma once

#include <cstdint>

extern "C" {

// Copies suffix (beginning with "/") behind the folder path held in the
// first `length` characters of a 4096-byte buffer and answers 1 when the
// path so formed can be opened for reading, else 0. The folder path stays
// intact, so one buffer serves a series of probes.
int vantor_command_server_existfile(char *buffer, int length, const char *suffix) noexcept;

// Kind of disc structure in a folder: 0 none, 1 BDMV, 2 VIDEO_TS, 3 BDAV,
// 4 DVD_RTAV. At most ten open attempts, no directory reading.
unsigned int vantor_command_server_cdtypedetection(const char *folder) noexcept;

}  // extern "C"

namespace media {

enum disc_kind : unsigned int { no_structure = 0, bdmv = 1, video_ts = 2, bdav = 3, dvd_rtav = 4 };

// Disc codes that get_disc_type reports for the medium in the optical drive.
inline constexpr int disc_code_bd_rom = 8;

// The text the share list shows for a disc code: "NO DISC", "DATA-DISC",
// "AUDIO-CD", ... and "UNSUPPORTED DISC" for any other code.
const char *disc_code_text(int code) noexcept;

// Codes 0 (no disc) and 1 (data disc) are read through the file system;
// every other medium is played from the device.
constexpr bool disc_is_file_system(int code) noexcept { return code == 0 || code == 1; }

}  // namespace media
