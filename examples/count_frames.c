/* count_frames: a minimal play engine in C on the play-engine SDK (libtavoplayengine).
 *
 * Connects to the engine's socket, reads each session's frames on a thread of its own, writes
 * session 0's video as an H.264 Annex B stream to OUT_DIR/session0.h264, answers every
 * snapshot request with a failure (it has no decoder) and on SIGTERM or SIGINT prints per
 * session the frames, NAL units and AAC frames it read:
 *
 *   count_frames [--out-dir OUT_DIR] [ignored...]
 *   session 0: frames=12 nal=340 aac=96 bad=0
 *
 * The engine's socket is /data/app/cmmb.socket, under $TAVO_ANDROID_ROOT when that is set. */
#define _POSIX_C_SOURCE 200809L /* sigaction */
#include <TavoPlayEngine.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

struct session_counts {
    unsigned long frames, nal, aac, bad;
};

static atomic_int stop_requested; /* set by SIGTERM and SIGINT */
static atomic_int readers_stop;   /* tells the reader threads to finish */
static tavo_pe* pe;
static struct session_counts counts[CMMB_SHARED_BUFFER_COUNT]; /* each by its session's reader */
static FILE* video;                                            /* written by session 0's reader */

static void request_stop(int signal_number) {
    (void)signal_number;
    atomic_store(&stop_requested, 1);
}

/* Takes one frame of `session` if one comes within wait_ms; 1 when one was read. */
static int read_frame(int session, int wait_ms) {
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

static void* read_session(void* argument) {
    int session = (int)(intptr_t)argument;
    while (!atomic_load(&readers_stop))
        read_frame(session, 100);
    while (read_frame(session, 0)) {
        /* frames announced before the stop still count */
    }
    return NULL;
}

static void handle(const tavo_pe_command* command) {
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
    pthread_t readers[CMMB_SHARED_BUFFER_COUNT];
    tavo_pe_command command;
    int i, session, status, reading = 0;

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
    while (!atomic_load(&stop_requested)) {
        if (!reading) {
            if (tavo_pe_connect(pe, 2000) != TAVO_PE_OK) {
                sleep(1); /* the engine is not there (yet) */
                continue;
            }
            printf("connected, both buffers mapped\n");
            for (session = 0; session < (int)CMMB_SHARED_BUFFER_COUNT; session++)
                pthread_create(&readers[session], NULL, read_session, (void*)(intptr_t)session);
            reading = 1;
        }
        status = tavo_pe_next_command(pe, &command, 100);
        if (status == TAVO_PE_OK)
            handle(&command);
        if (status == TAVO_PE_OK || status == TAVO_PE_TIMEOUT)
            continue;
        printf("connection ended (%s)\n", tavo_pe_status_text(status));
        /* The regions stay mapped until the readers are gone; connect maps the new ones. */
        atomic_store(&readers_stop, 1);
        for (session = 0; session < (int)CMMB_SHARED_BUFFER_COUNT; session++)
            pthread_join(readers[session], NULL);
        atomic_store(&readers_stop, 0);
        reading = 0;
    }
    atomic_store(&readers_stop, 1);
    for (session = 0; reading && session < (int)CMMB_SHARED_BUFFER_COUNT; session++)
        pthread_join(readers[session], NULL);
    for (session = 0; session < (int)CMMB_SHARED_BUFFER_COUNT; session++)
        printf("session %d: frames=%lu nal=%lu aac=%lu bad=%lu\n", session, counts[session].frames,
               counts[session].nal, counts[session].aac, counts[session].bad);
    if (video != NULL)
        fclose(video);
    tavo_pe_destroy(pe);
    return 0;
}
