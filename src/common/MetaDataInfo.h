// The per-app record of the metadata registry, owned by TalvoProxyCommonData's
// metaDataMap. Releasing a MetaDataInfo releases its MetaDataValue and the three strings.
#pragma once

#include <memory>

enum IpcMechanism {
  IPC_MECHANISM_MESSAGE_PORT = 1,
  IPC_MECHANISM_VIDL = 2,
};

struct MetaDataValue {
  char *versionValue = nullptr;     // owned (malloc), null when not declared
  char *capsuleIdValue = nullptr;   // owned (malloc), null when not declared
  char *sdkVersionValue = nullptr;  // owned (malloc), null when not declared

  MetaDataValue() = default;
  ~MetaDataValue();
  MetaDataValue(const MetaDataValue &) = delete;
  MetaDataValue &operator=(const MetaDataValue &) = delete;
};

struct MetaDataInfo {
  std::unique_ptr<MetaDataValue> metadataValue;  // owned; never null once registered
  int ipcMechanism = IPC_MECHANISM_MESSAGE_PORT;  // an IpcMechanism value
};
