// Interface of whoever receives the text messages of a CommunicationClient.
#pragma once

#include <string>

namespace kelm {

class iRecieveListener {
public:
    virtual ~iRecieveListener() = default;
    // Called on the transport's receive thread, once per complete text
    // message, in the order the messages arrived.
    virtual void onReceive(const std::string& message) = 0;
};

}  // namespace kelm
