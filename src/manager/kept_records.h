// The records of a list at one moment, with a reference to each.
#pragma once

#include "device/gvdevice.h"

#include <vector>

struct KeptRecords {
    KeptRecords() noexcept = default;
    ~KeptRecords() noexcept(false) {
        for (GVDevice* const record : records) {
            if (record != nullptr) {
                GVDevice::Release(record);
            }
        }
    }
    KeptRecords(const KeptRecords&) = delete;
    KeptRecords& operator=(const KeptRecords&) = delete;

    void keep(const std::vector<GVDevice*>& list) {
        records = list;
        for (GVDevice* const record : records) {
            if (record != nullptr) {
                record->Retain();
            }
        }
    }

    std::vector<GVDevice*> records;
};
