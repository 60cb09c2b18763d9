// Small helpers of the recorder's system library. They are free functions in the global namespace; several
// classes of the library have members of the same name, so call these with a leading "::" there.
#pragma once

// Stands in front of every diagnostic line, so that a log of many processes can be told apart. Never null.
extern const char* gpDebugPrefix;

// Formats a command and runs it with the shell. However long the command gets, it is never cut short. What it
// writes to standard output goes to standard error: the application's standard output is its own. Where there
// is no /opt/app/filedb, a command that starts with it runs the tool of the same name that is installed beside
// this library or beside the program. Result: the wait status as of system(3); -1 when it could not be
// formatted or run; 0 and one line on standard error where commands are forbidden, as in a process that only
// looks at the disks.
int SystemFmt(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Makes the symbolic link `link` that points to `target`. Result: 0, or -1 (and nothing changed, an existing
// `link` included) with errno set.
int MakeLink(const char* target, const char* link);

// 1 when something of that name exists, a directory or a link to nowhere included; else 0.
int IsExistFile(const char* path);

// Number of directory entries that match a glob(7) pattern; 0 for none or when the directory can't be read.
int GetFileCount(const char* pattern);

// Size in bytes; 0 for a missing file. Saturates at 2147483647.
int GetFileSize(const char* path);
