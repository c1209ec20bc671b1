#include "KLVMsgSocketMessage.h"

KLVMsgSocketMessage::~KLVMsgSocketMessage() = default;
