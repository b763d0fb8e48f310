#include "RepairRecord.h"

#include <cstring>

const uint8_t kRepairRecordMagic[4] = {'T', 'v', 'R', 'r'};

uint32_t repairRecordCrc(const uint8_t* data, size_t size) {
    // CRC-32 (IEEE 802.3, reflected); records are small, so bit by bit is enough.
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

void RepairRecordBuilder::begin(std::vector<uint8_t>* out, uint8_t type) {
    mOut = out;
    mStart = out->size();
    bytes(kRepairRecordMagic, sizeof(kRepairRecordMagic));
    u32(0);  // length, filled in by end()
    u8(type);
}

void RepairRecordBuilder::u16(uint16_t value) {
    mOut->push_back(static_cast<uint8_t>(value >> 8));
    mOut->push_back(static_cast<uint8_t>(value));
}

void RepairRecordBuilder::u32(uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        mOut->push_back(static_cast<uint8_t>(value >> shift));
}

void RepairRecordBuilder::varint(uint64_t value) {
    while (value >= 0x80) {
        mOut->push_back(static_cast<uint8_t>(value | 0x80));
        value >>= 7;
    }
    mOut->push_back(static_cast<uint8_t>(value));
}

void RepairRecordBuilder::bytes(const uint8_t* data, size_t size) {
    mOut->insert(mOut->end(), data, data + size);
}

void RepairRecordBuilder::end() {
    const size_t typeAt = mStart + 8;
    const uint32_t bodySize = static_cast<uint32_t>(mOut->size() - typeAt - 1);
    uint8_t* length = mOut->data() + mStart + 4;
    for (int i = 0; i < 4; ++i)
        length[i] = static_cast<uint8_t>(bodySize >> (24 - 8 * i));
    u32(repairRecordCrc(mOut->data() + typeAt, mOut->size() - typeAt));
}

bool RepairRecordReader::u8(uint8_t* value) {
    const uint8_t* data;
    if (!bytes(1, &data))
        return false;
    *value = data[0];
    return true;
}

bool RepairRecordReader::u16(uint16_t* value) {
    const uint8_t* data;
    if (!bytes(2, &data))
        return false;
    *value = static_cast<uint16_t>(data[0] << 8 | data[1]);
    return true;
}

bool RepairRecordReader::u32(uint32_t* value) {
    const uint8_t* data;
    if (!bytes(4, &data))
        return false;
    *value = static_cast<uint32_t>(data[0]) << 24 | static_cast<uint32_t>(data[1]) << 16 |
             static_cast<uint32_t>(data[2]) << 8 | data[3];
    return true;
}

bool RepairRecordReader::varint(uint64_t* value) {
    uint64_t result = 0;
    for (int shift = 0; shift < 64; shift += 7) {
        uint8_t byte;
        if (!u8(&byte))
            return false;
        result |= static_cast<uint64_t>(byte & 0x7F) << shift;
        if ((byte & 0x80) == 0) {
            *value = result;
            return true;
        }
    }
    mOk = false;  // longer than 64 bits
    return false;
}

bool RepairRecordReader::bytes(size_t size, const uint8_t** data) {
    if (!mOk || size > mSize - mPosition) {
        mOk = false;
        return false;
    }
    *data = mData + mPosition;
    mPosition += size;
    return true;
}

bool findRepairRecord(const uint8_t* file, size_t size, size_t position, RepairRecordView* view) {
    if (position > size || size - position < REPAIR_RECORD_HEADER_SIZE + REPAIR_RECORD_TRAILER_SIZE)
        return false;
    const uint8_t* at = file + position;
    if (memcmp(at, kRepairRecordMagic, sizeof(kRepairRecordMagic)) != 0)
        return false;
    const size_t bodySize = static_cast<size_t>(static_cast<uint32_t>(at[4]) << 24 |
                                                static_cast<uint32_t>(at[5]) << 16 |
                                                static_cast<uint32_t>(at[6]) << 8 | at[7]);
    if (bodySize > REPAIR_RECORD_MAX_BODY ||
        bodySize > size - position - REPAIR_RECORD_HEADER_SIZE - REPAIR_RECORD_TRAILER_SIZE)
        return false;
    const uint8_t* crcAt = at + REPAIR_RECORD_HEADER_SIZE + bodySize;
    const uint32_t crc = static_cast<uint32_t>(crcAt[0]) << 24 |
                         static_cast<uint32_t>(crcAt[1]) << 16 |
                         static_cast<uint32_t>(crcAt[2]) << 8 | crcAt[3];
    if (crc != repairRecordCrc(at + 8, bodySize + 1))
        return false;
    view->type = at[8];
    view->body = at + REPAIR_RECORD_HEADER_SIZE;
    view->bodySize = bodySize;
    view->end = position + REPAIR_RECORD_HEADER_SIZE + bodySize + REPAIR_RECORD_TRAILER_SIZE;
    return true;
}
