// Which schema the advertiser was handed.
#pragma once

#include <memory>

#include "scan_response/ScanResponse.h"

inline bool IsV3(const std::shared_ptr<ScanResponse::Base>& payload) {
    return dynamic_cast<const ScanResponse::V3*>(payload.get()) != nullptr;
}
inline bool IsV4(const std::shared_ptr<ScanResponse::Base>& payload) {
    return dynamic_cast<const ScanResponse::V4*>(payload.get()) != nullptr;
}
