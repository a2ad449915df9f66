// What the daemon gives up when its files are open: it then looks at directories and talks to its
// clients, and can do nothing else.
#ifndef RUMA_FS_DAEMON_CONFINEMENT_H
#define RUMA_FS_DAEMON_CONFINEMENT_H

namespace ruma {

// Confines this process, which has one thread, for good. It writes in fs_daemon_dir() alone, and
// only while that is the directory that it is now; it reads no file's content but that of the
// configuration's directory, which it reads again at SIGHUP, and the names of users; it starts no
// program, opens no socket but Unix ones (on i386 the C library makes sockets by a call whose
// arguments a filter cannot see: there Landlock keeps it from TCP, and nothing from other
// families), and makes no system call that its work does not need.
// Directories can still be listed wherever its user may: one of them may be the file system that is
// mounted tomorrow.
//
// Says on standard error what the kernel leaves open. Throws std::runtime_error when the kernel
// knows how to confine a process and does not.
void confine_daemon();

} // namespace ruma

#endif
