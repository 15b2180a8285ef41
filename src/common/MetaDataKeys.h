// Package metadata keys that companion apps declare in their manifests. Every key is the
// fixed scheme-and-host prefix followed by a path; keys are compared whole and
// case-sensitively.
#pragma once

#define TALVO_METADATA_KEY_PREFIX "http://velna.org"

namespace talvo {

inline constexpr const char kMetadataVersionKey[] =
    TALVO_METADATA_KEY_PREFIX "/velna/metadata/talvo/companion-app/version";
inline constexpr const char kMetadataCapsuleIdKey[] =
    TALVO_METADATA_KEY_PREFIX "/velna/metadata/talvo/companion-app/capsule-id";
inline constexpr const char kMetadataSdkVersionKey[] =
    TALVO_METADATA_KEY_PREFIX "/velna/metadata/talvo/sdk/version";
inline constexpr const char kMetadataActionIdKey[] =
    TALVO_METADATA_KEY_PREFIX "/velna/metadata/talvo/companion-app/action-id";

}  // namespace talvo
