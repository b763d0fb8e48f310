#include "DeferredCalls.h"

#include <cstring>

namespace {

// Whether the current thread is between onOutputAVStart and onOutputAVEnd.
thread_local bool tInsideBracket = false;

// Room reserved up front, so that the first frames that defer something rarely allocate.
const size_t kInitialCalls = 16;
const size_t kInitialBlocks = 256;

}  // namespace

DeferredCalls::DeferredCalls() {
    for (Queue& queue : mQueues) {
        queue.calls.reserve(kInitialCalls);
        queue.blocks.reserve(kInitialBlocks);
    }
}

DeferredCalls::Bytes DeferredCalls::text(const char* text) {
    return {text, text != nullptr ? strlen(text) + 1 : 0};
}

void DeferredCalls::beginBracket() {
    tInsideBracket = true;
}

bool DeferredCalls::insideBracket() {
    return tInsideBracket;
}

void DeferredCalls::endBracketOnThisThread() {
    tInsideBracket = false;
}

void DeferredCalls::defer(Kind kind, int value, int param, Bytes first, Bytes second) {
    MutexLock guard(mLock);
    Queue& queue = mQueues[mFilling];
    Stored stored;
    stored.kind = kind;
    stored.value = value;
    stored.param = param;
    stored.first = store(queue, first);
    stored.second = store(queue, second);
    queue.calls.push_back(stored);
    mQueued.store(true, std::memory_order_release);
}

void DeferredCalls::discard() {
    MutexLock guard(mLock);
    mQueues[mFilling].calls.clear();
    mQueues[mFilling].blocks.clear();
    mQueued.store(false, std::memory_order_release);
}

size_t DeferredCalls::store(Queue& queue, Bytes piece) {
    if (piece.data == nullptr)
        return kNone;
    const size_t first = queue.blocks.size();
    // At least one block, so that a copy of nothing still has an address of its own.
    const size_t blocks = piece.size / sizeof(Block) + 1;
    queue.blocks.resize(first + blocks);
    if (piece.size > 0)
        memcpy(queue.blocks.data() + first, piece.data, piece.size);
    return first;
}

DeferredCalls::Call DeferredCalls::callOf(Queue& queue, const Stored& stored) {
    Call call;
    call.kind = stored.kind;
    call.value = stored.value;
    call.param = stored.param;
    call.first = stored.first == kNone ? nullptr : queue.blocks.data() + stored.first;
    call.second = stored.second == kNone ? nullptr : queue.blocks.data() + stored.second;
    return call;
}
