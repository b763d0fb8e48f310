/* Status of the engine's play-engine link, for an application or harness that needs to know
 * whether the play engine is attached and reading before it acts (for example, to start a
 * recording only once the play engine has the buffers, or to wait until it has let a
 * session's buffer go).
 *
 * These are plain C functions exported from libtavombbms.so beside the engine interface;
 * they are not operations of TavoMBBMSEngine, whose slots stay as they are. Each may be
 * called from any thread at any time, also before the engine exists, from inside an engine
 * callback, and while another thread runs init or deinit. None of them creates the engine,
 * waits for a lock that an engine operation holds for long, or calls the application. Each
 * answer is a snapshot: the play engine may connect, leave, take or release a lock right
 * after it was read.
 */
#ifndef TAVO_MBBMS_ENGINE_STATUS_H
#define TAVO_MBBMS_ENGINE_STATUS_H

#ifdef __cplusplus
extern "C" {
#endif

/* 1 when a play engine is connected to the engine's command socket: the engine accepted it
 * and it is being (or has been) sent the descriptors of the shared buffers. 0 otherwise:
 * before the first getInstance and init, after deinit, before any client connected, and
 * once the connected client has gone (the engine notices within its socket poll, normally
 * at once). A client refused by the engine (wrong uid, unbound socket) never counts. */
__attribute__((visibility("default"))) int tavo_mbbms_playengine_connected(void);

/* Whether a process outside the engine holds the lock of session's shared buffer
 * (mutexDataAccessable): 1 when the lock word reads 0 and no engine thread holds it, 0 when
 * the lock is free or an engine thread holds it (a frame being written, a buffer reset).
 * -1 for a session other than 0 or 1, or when the buffers do not exist (no engine, before
 * init, after deinit). The answer does not depend on the connection: a play engine that
 * left while holding the lock still counts until the engine replaces that buffer. */
__attribute__((visibility("default"))) int tavo_mbbms_playengine_holds_buffer(int session);

#ifdef __cplusplus
}
#endif

#endif /* TAVO_MBBMS_ENGINE_STATUS_H */
