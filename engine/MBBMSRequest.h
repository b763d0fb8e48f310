// Identifiers of the MBBMS interactive requests; the value of the engine's pending-request
// field and the number handed to the agent's cancelMBBMSRequest.
#ifndef TAVO_ENGINE_MBBMS_REQUEST_H
#define TAVO_ENGINE_MBBMS_REQUEST_H

enum MBBMSRequest {
    REQUEST_NONE = 0,
    REQUEST_UPDATE_SG = 1,
    REQUEST_INIT_GBA = 2,
    REQUEST_AUTHORIZE_SERVICE = 3,
    REQUEST_SUBSCRIBE_SERVICE = 4,
    REQUEST_UNSUBSCRIBE_SERVICE = 5,
    REQUEST_INQUIRY_ACCOUNT = 6,
    REQUEST_UPDATE_ST = 7,
    REQUEST_NOT_READY = 10,
};

#endif  // TAVO_ENGINE_MBBMS_REQUEST_H
