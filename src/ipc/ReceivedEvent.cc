// talvo::ReceivedEvent: every answer an app sends over rpc-port.
#include "ipc/ReceivedEvent.h"

#include "common/Log.h"
#include "ipc/TalvoProxyIpc.h"

namespace talvo {

void ReceivedEvent::OnReceived(std::string id, bundle *msg) {
  try {
    LOGI("(%s) OnReceived", id.c_str());
    TalvoProxyIpc *ipc = TalvoProxyIpc::getInstance();
    if (!ipc)
      return;
    ipc->_processAppResult(id, msg);
  } catch (...) {
    LOGE("Unexpected exception while handling an answer from (%s)", id.c_str());
  }
}

}  // namespace talvo
