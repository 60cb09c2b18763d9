// The file list cache of a workstation: serves the driver's requests inside the process. It answers through
// FlcIoctl (include/Flc.h); the calls here tell it which disks exist.
//
// A failed request sets errno: ENOENT for no such file, directory or disk, EINVAL for a record that names none,
// EFAULT for a null record, ENOTTY for an unknown request; anything else says why file names could not be read.
// What can't be read is never taken for empty and is tried again at the next request. With it a question about
// several directories fails when it asks for a count, an extreme or a position, and is answered from the others
// when it asks for a neighbour or an interval: playback goes on past a broken disk. Of recordings with one
// start time in several directories the one attached first is answered, then that of the smaller number.
//
// Threads: every call and every request may come from any thread; one mutex guards them all and is held only
// for memory work and for the first listing of a directory.
#pragma once

// Makes a disk known: `diskName` of 1 to 8 bytes without "/", `directory` the disk's directory. Its data
// directories are loaded from their file names on the first request that concerns them. A name that is attached
// already is taken over by the new directory, keeps its place in the order, and everything cached of it is
// dropped. 0 done, -1 refused (bad name, not a directory) with errno set; nothing on disk is touched.
int FlcAttachDisk(const char* diskName, const char* directory);

// Forgets a disk and all that is cached of it. 0 done, -1 when it is not attached.
int FlcDetachDisk(const char* diskName);

// Drops what is cached of data directory `index` of a disk (-1: of the whole disk); it is read afresh from the
// file names on the next request, unless it is unregistered. 0 done, -1 when the disk is not attached.
int FlcForget(const char* diskName, int index);
