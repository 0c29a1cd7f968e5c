/// What the backups of a running and of a stopped server have in common.
/// Threads: none. Errors: Failure.
#pragma once

#include "lab/brcmd/backup.h"
#include "lab/brcmd/data_files.h"
#include "lab/brcmd/image.h"
#include "lab/brcmd/log_segments.h"
#include "lab/common/chain_file.h"
#include "lab/common/set_notes.h"

#include <string>
#include <vector>

namespace oscar_lab
{

constexpr const char* control_file = "global/pg_control";

/// One backup from its first check to its line in lastlsn.dat.
struct Backup_Set {
  std::string level;
  Backup_Point point;
  Set_Notes notes; // of this backup
  Log_Shape log_shape;
  // Of a backup that continues another one:
  Chain chain; // as found
  std::string base_id;
  Set_Notes base; // of the backup that is continued

  bool is_full() const { return level == "full"; }
};

/// Finds the backup that this level continues: the last one for incr, the last full one for diff. notes.mode,
/// notes.system and log_shape must be known. Throws, with the advice to take a full backup, when the chain
/// cannot go on.
void find_base(const Instance_Files& files, Backup_Set& set);

std::string new_backup_id();

/// The info text: level, then a line for each data file with the bytes behind it. bytes[0] is the data
/// directory. Many tablespaces could exceed what a restoring agent can hold; then the whole size stands in
/// one line.
std::string info_text(const Instance_Files& files, const Backup_Set& set,
                      const std::vector<Tablespace>& tablespaces, const std::vector<std::uint64_t>& bytes);
/// Info block and head frame.
void write_head(Image_Writer& image, const Instance_Files& files, const Backup_Set& set,
                const std::string& info);
void write_roots(Image_Writer& image, const Instance_Files& files, const Data_Files& data);
/// A directory or a whole file.
void write_entry(Image_Writer& image, const Data_Files& data, const Data_File& entry, bool may_vanish);
void write_small_file(Image_Writer& image, const std::string& path, const std::string& content);
void write_control_file(Image_Writer& image, const std::string& data_directory);
/// The range's segments as whole files.
void write_log_files(Image_Writer& image, const std::string& data_directory, const Log_Shape& shape,
                     const Log_Range& range);

/// Key of a file's note.
std::string note_key_of(const Data_Files& data, const Data_File& entry);

/// The last steps of every backup: the end mark, the reader's last byte, then notes and lastlsn.dat.
/// point.lsn, point.scn and the notes' files must be set.
void conclude(Image_Writer& image, int pipe, const Instance_Files& files, Backup_Set& set,
              const Log_Range& log_part, Run_Log& log);

/// backup.cpp calls one of these; the levels are checked.
void back_up_online(const Instance_Files& files, const Backup_Request& request, Run_Log& log);
void back_up_offline(const Instance_Files& files, const Backup_Request& request, Run_Log& log);

} // namespace oscar_lab
