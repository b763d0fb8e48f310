/* count_frames: a minimal play engine in C on the play-engine SDK (libtavoplayengine).
 *
 * Connects to the engine's socket, reads both sessions' frames on one thread, writes session
 * 0's video as an H.264 Annex B stream to OUT_DIR/session0.h264, answers every snapshot
 * request with a failure (it has no decoder) and on SIGTERM or SIGINT prints per session the
 * frames, NAL units and AAC frames it read:
 *
 *   count_frames [--out-dir OUT_DIR] [ignored...]
 *   session 0: frames=12 nal=340 aac=96 bad=0
 *
 * The engine's socket is /data/app/cmmb.socket, under $TAVO_ANDROID_ROOT when that is set. */
#include <TavoPlayEngine.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static volatile sig_atomic_t stop_requested = 0;

static void request_stop(int signal_number) {
    (void)signal_number;
    stop_requested = 1;
}

struct session_counts {
    unsigned long frames, nal, aac, bad;
};

static struct session_counts counts[CMMB_SHARED_BUFFER_COUNT];
static FILE* video;

/* Takes one frame of `session` if one comes within wait_ms; 1 when one was read. */
static int read_frame(tavo_pe* pe, int session, int wait_ms) {
    static const unsigned char start_code[4] = {0, 0, 0, 1};
    tavo_pe_frame frame;
    tavo_pe_item item;
    uint32_t i;
    if (tavo_pe_wait_frame(pe, session, wait_ms, &frame) != TAVO_PE_OK)
        return 0;
    counts[session].frames++;
    for (i = 0; i < frame.nal_count; i++) {
        if (tavo_pe_frame_nal(&frame, i, &item) != TAVO_PE_OK) {
            counts[session].bad++;
            continue;
        }
        counts[session].nal++;
        if (session == 0 && video != NULL) {
            fwrite(start_code, 1, sizeof(start_code), video);
            fwrite(item.bytes, 1, item.length, video);
        }
    }
    for (i = 0; i < frame.aac_count; i++) {
        if (tavo_pe_frame_aac(&frame, i, &item) == TAVO_PE_OK)
            counts[session].aac++;
        else
            counts[session].bad++;
    }
    tavo_pe_release_frame(pe, &frame);
    return 1;
}

static void handle(tavo_pe* pe, const tavo_pe_command* command) {
    printf("command \"%s\" for session %d\n", command->text, command->session);
    if (command->kind == TAVO_PE_CMD_CAPTURE) {
        if (command->fd >= 0)
            close(command->fd);
        tavo_pe_send_indication(pe, IMAGE_CAPTURE_FAIL);
    }
}

int main(int argc, char** argv) {
    char path[4096];
    struct sigaction action;
    tavo_pe* pe;
    tavo_pe_command command;
    int i, session, status;

    for (i = 1; i + 1 < argc; i++) {
        if (strcmp(argv[i], "--out-dir") == 0) {
            snprintf(path, sizeof(path), "%s/session0.h264", argv[i + 1]);
            video = fopen(path, "wb");
        }
    }
    memset(&action, 0, sizeof(action));
    action.sa_handler = request_stop;
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);
    setvbuf(stdout, NULL, _IOLBF, 0);

    pe = tavo_pe_create(NULL, NULL); /* the default socket; a private path of our own */
    if (pe == NULL) {
        fprintf(stderr, "count_frames: socket path too long\n");
        return 1;
    }
    while (!stop_requested) {
        if (!tavo_pe_is_connected(pe)) {
            status = tavo_pe_connect(pe, 2000);
            if (status != TAVO_PE_OK) {
                usleep(100 * 1000); /* the engine is not there (yet) */
                continue;
            }
            printf("connected, both buffers mapped\n");
        }
        status = tavo_pe_next_command(pe, &command, 0);
        if (status == TAVO_PE_OK)
            handle(pe, &command);
        else if (status != TAVO_PE_TIMEOUT)
            printf("connection ended (%s)\n", tavo_pe_status_text(status));
        for (session = 0; session < (int)CMMB_SHARED_BUFFER_COUNT; session++)
            read_frame(pe, session, 10);
    }
    /* Frames announced before the stop are still read, so that the counts are complete. */
    for (session = 0; session < (int)CMMB_SHARED_BUFFER_COUNT; session++)
        while (read_frame(pe, session, 0)) {
        }
    for (session = 0; session < (int)CMMB_SHARED_BUFFER_COUNT; session++)
        printf("session %d: frames=%lu nal=%lu aac=%lu bad=%lu\n", session,
               counts[session].frames, counts[session].nal, counts[session].aac,
               counts[session].bad);
    if (video != NULL)
        fclose(video);
    tavo_pe_destroy(pe);
    return 0;
}
