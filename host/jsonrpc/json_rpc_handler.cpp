#include "host/jsonrpc/json_rpc_handler.h"

JSON_RPC_Handler::~JSON_RPC_Handler() {}
