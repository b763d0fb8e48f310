// Binds the command socket to its path so that nobody who can write the path's directory can
// redirect the change of the file's mode to another file: the socket is bound in a private
// directory made next to the path (mode 0700, only this user may enter it), given its mode
// there, and renamed into place, which also replaces a stale file of an earlier run. The
// private directory is removed again.
//
// Who may connect decides the mode: 0660 (owner and group) normally; 0666 while the system
// property "persist.mbbms.playengine.uids" lists a uid, because such a play engine need not
// share a group with the application. Every accepted client is still checked by its
// credentials (SO_PEERCRED), so the wider mode lets a listed uid connect but lets nobody else
// be served.
#ifndef TAVO_PLAYENGINE_COMMAND_SOCKET_FILE_H
#define TAVO_PLAYENGINE_COMMAND_SOCKET_FILE_H

#include <sys/types.h>

// Name of the system property listing the other uids that may connect.
#define TAVO_PLAYENGINE_UIDS_PROPERTY "persist.mbbms.playengine.uids"

// The mode the socket file gets: 0666 when the property lists a uid, else 0660.
mode_t commandSocketMode();

// True when `uid` is listed in the property (decimal uids separated by commas or spaces).
bool uidListedAsPlayEngine(uid_t uid);

// Binds `socketFd` (an unbound AF_UNIX socket) to `path` with `mode` as described above.
// 0 on success; -1 on failure, with errno set and nothing left behind.
int bindCommandSocket(int socketFd, const char* path, mode_t mode);

#endif  // TAVO_PLAYENGINE_COMMAND_SOCKET_FILE_H
