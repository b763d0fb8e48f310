#include "CheckingAgent.h"

void CheckingAgent::endExpiredFrame(std::chrono::milliseconds maxAge) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mCallback)
        mCallback->endExpiredFrame(maxAge);
}

int CheckingAgent::init(MBBMSAgentCallback* callback, const char* dir, const char* dir2) {
    CheckingCallback* checking;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mCallback || mCallback->engine() != callback) {
            // The earlier callback stays alive: a vendor thread may still hold it.
            if (mCallback)
                mRetired.push_back(std::move(mCallback));
            mCallback.reset(new CheckingCallback(callback, mChecker));
        }
        checking = mCallback.get();
    }
    return mVendor->init(checking, dir, dir2);
}

int CheckingAgent::requestInitGBA(int force) {
    return request(REQUEST_INIT_GBA, [&] { return mVendor->requestInitGBA(force); });
}

int CheckingAgent::requestUpdateSG(const char* areaName) {
    return request(REQUEST_UPDATE_SG, [&] { return mVendor->requestUpdateSG(areaName); });
}

int CheckingAgent::requestSubscribeService(const char* const* ids, int count) {
    return request(REQUEST_SUBSCRIBE_SERVICE,
                   [&] { return mVendor->requestSubscribeService(ids, count); });
}

int CheckingAgent::requestUnsubscribeService(const char* const* ids, int count) {
    return request(REQUEST_UNSUBSCRIBE_SERVICE,
                   [&] { return mVendor->requestUnsubscribeService(ids, count); });
}

int CheckingAgent::requestAuthorizeService(int* list1, int* list2, const char** names, int count) {
    return request(REQUEST_AUTHORIZE_SERVICE,
                   [&] { return mVendor->requestAuthorizeService(list1, list2, names, count); });
}

int CheckingAgent::requestInquiryAccount() {
    return request(REQUEST_INQUIRY_ACCOUNT, [&] { return mVendor->requestInquiryAccount(); });
}

int CheckingAgent::requestUpdateST() {
    return request(REQUEST_UPDATE_ST, [&] { return mVendor->requestUpdateST(); });
}
