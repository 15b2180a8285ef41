#include "common/MetaDataInfo.h"

#include <cstdlib>

MetaDataValue::~MetaDataValue() {
  free(versionValue);
  free(capsuleIdValue);
  free(sdkVersionValue);
}
