// MBBMS interactive requests: one at a time, some only in MBBMS mode, each agent call
// serialised with init and deinit under mLock, each ended by its completion callback.
//
// mPendingRequest is claimed with a compare-and-swap from REQUEST_NONE to the request's
// number, so of two requests issued at the same instant exactly one reaches the agent. The
// completion callbacks (agent threads) set it back to REQUEST_NONE; init and deinit (under
// mLock) set REQUEST_NONE and REQUEST_NOT_READY.
#include "EngineGuard.h"
#include "EngineLog.h"
#include "MutexLock.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

const bool kMbbmsModeOnly = true;
const bool kAnyMode = false;

const char* printable(const char* text) {
    return text != nullptr ? text : "(null)";
}

}  // namespace

// Checks, in this order, that the engine is initialised, that no request is pending and,
// for the MBBMS-only requests, that the mode is MBBMS_MODE; then claims mPendingRequest and
// makes the agent call under mLock. A refused request leaves mPendingRequest unchanged; an
// accepted one stays pending whatever the agent returns, until a completion callback.
template <typename AgentCall>
int TavoMBBMSEngineImpl::runRequest(const char* operation, MBBMSRequest request,
                                    bool needsMbbmsMode, AgentCall call) {
    if (!mIsInitialized.load()) {
        TLOG_FOR(operation, WARNING, "skipped due to mIsInitialized==false");
        return -1;
    }
    int pending = mPendingRequest.load();
    if (pending == REQUEST_NONE) {
        if (needsMbbmsMode && mMode.load() != MBBMS_MODE) {
            TLOG_FOR(operation, ERROR, "failed due to current mode is not MBBMS mode");
            return -1;
        }
        // Of the requests racing from here, one turns REQUEST_NONE into its number; the
        // others get back the number that beat them and are refused with it below.
        if (mPendingRequest.compare_exchange_strong(pending, request)) {
            TLOG_FOR(operation, SEMAPHORE, "wait mLock...");
            MutexLock guard(mLock);
            TLOG_FOR(operation, SEMAPHORE, "wait mLock...done");
            // A deinit that ran while this thread waited for mLock has shut the agent down
            // and forgotten the request.
            if (!mIsInitialized.load()) {
                TLOG_FOR(operation, WARNING, "skipped due to mIsInitialized==false");
                return -1;
            }
            return call();
        }
    }
    if (pending == REQUEST_NOT_READY) {
        // init or deinit is between marking the engine and resetting the pending request.
        TLOG_FOR(operation, WARNING, "skipped due to mIsInitialized==false");
        return -1;
    }
    TLOG_FOR(operation, ERROR, "failed due to MBBMS stack is still handling request %d", pending);
    return -1;
}

void TavoMBBMSEngineImpl::endPendingRequest() {
    // Ends whichever request is pending; it is not matched against the completion. A
    // completion arriving after deinit leaves REQUEST_NOT_READY: requests wait for init.
    int pending = mPendingRequest.load();
    while (pending != REQUEST_NOT_READY &&
           !mPendingRequest.compare_exchange_weak(pending, REQUEST_NONE)) {
    }
}

int TavoMBBMSEngineImpl::requestUpdateSG(const char* areaName) {
    TLOG(ENGINE, "areaName=%s", printable(areaName));
    return runRequest(__func__, REQUEST_UPDATE_SG, kMbbmsModeOnly,
                      [&] { return mAgent->requestUpdateSG(areaName); });
}

int TavoMBBMSEngineImpl::requestInitGBA(int force) {
    TLOG(ENGINE, "force=%d", force);
    return runRequest(__func__, REQUEST_INIT_GBA, kMbbmsModeOnly,
                      [&] { return mAgent->requestInitGBA(force); });
}

int TavoMBBMSEngineImpl::requestAuthorizeService(int* list1, int* list2, const char** names,
                                                 int count) {
    TLOG(ENGINE, "count=%d", count);
    return runRequest(__func__, REQUEST_AUTHORIZE_SERVICE, kMbbmsModeOnly,
                      [&] { return mAgent->requestAuthorizeService(list1, list2, names, count); });
}

int TavoMBBMSEngineImpl::requestSubscribeService(const char* const* ids, int count) {
    TLOG(ENGINE, "count=%d", count);
    return runRequest(__func__, REQUEST_SUBSCRIBE_SERVICE, kAnyMode,
                      [&] { return mAgent->requestSubscribeService(ids, count); });
}

int TavoMBBMSEngineImpl::requestUnsubscribeService(const char* const* ids, int count) {
    TLOG(ENGINE, "count=%d", count);
    return runRequest(__func__, REQUEST_UNSUBSCRIBE_SERVICE, kAnyMode,
                      [&] { return mAgent->requestUnsubscribeService(ids, count); });
}

int TavoMBBMSEngineImpl::requestInquiryAccount() {
    TLOG(ENGINE, "%s()", __func__);
    return runRequest(__func__, REQUEST_INQUIRY_ACCOUNT, kAnyMode,
                      [&] { return mAgent->requestInquiryAccount(); });
}

int TavoMBBMSEngineImpl::requestUpdateST() {
    TLOG(ENGINE, "%s()", __func__);
    return runRequest(__func__, REQUEST_UPDATE_ST, kMbbmsModeOnly,
                      [&] { return mAgent->requestUpdateST(); });
}

int TavoMBBMSEngineImpl::cancelMBBMSRequest() {
    TLOG(ENGINE, "%s()", __func__);
    RETURN_IF_NOT_INITIALIZED(-1);
    int pending = mPendingRequest.load();
    if (pending == REQUEST_NONE || pending == REQUEST_NOT_READY) {
        TLOG(WARNING, "no request to cancel");
        return 0;
    }
    // Without mLock: the request's own agent call may still be running on another thread.
    // The request stays pending until the agent calls its completion callback.
    return mAgent->cancelMBBMSRequest(pending);
}

// ---- Completions (agent threads): relay to the application, then end the request ----
// A completion raised inside a frame bracket is replayed at the bracket's end (see
// EngineEventRelay.cpp); the request ends after that replay.

void TavoMBBMSEngineImpl::onRequestUpdateSG(bool done, const char* info, const char* info2) {
    if (deferInsideBracket(DeferredCalls::REQUEST_UPDATE_SG, done, 0, DeferredCalls::text(info),
                           DeferredCalls::text(info2)))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onRequestUpdateSG(done, info, info2); });
    endPendingRequest();
}

void TavoMBBMSEngineImpl::onRequestInitGBA(bool done) {
    if (deferInsideBracket(DeferredCalls::REQUEST_INIT_GBA, done))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onRequestInitGBA(done); });
    endPendingRequest();
}

void TavoMBBMSEngineImpl::onRequestUpdateST(bool done, const char* info) {
    if (deferInsideBracket(DeferredCalls::REQUEST_UPDATE_ST, done, 0, DeferredCalls::text(info)))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onRequestUpdateST(done, info); });
    endPendingRequest();
}

void TavoMBBMSEngineImpl::onRequestSubscribeService(bool done) {
    if (deferInsideBracket(DeferredCalls::REQUEST_SUBSCRIBE_SERVICE, done))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onRequestSubscribeService(done); });
    endPendingRequest();
}

void TavoMBBMSEngineImpl::onRequestUnsubscribeService(bool done) {
    if (deferInsideBracket(DeferredCalls::REQUEST_UNSUBSCRIBE_SERVICE, done))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onRequestUnsubscribeService(done); });
    endPendingRequest();
}

void TavoMBBMSEngineImpl::onRequestInquiryAccount(bool done, const char* info) {
    if (deferInsideBracket(DeferredCalls::REQUEST_INQUIRY_ACCOUNT, done, 0,
                           DeferredCalls::text(info)))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onRequestInquiryAccount(done, info); });
    endPendingRequest();
}

void TavoMBBMSEngineImpl::onRequestAuthorizeService(bool done) {
    if (deferInsideBracket(DeferredCalls::REQUEST_AUTHORIZE_SERVICE, done))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onRequestAuthorizeService(done); });
    endPendingRequest();
}
