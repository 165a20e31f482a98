// The agent's JSON-RPC 2.0 client: one POST /rpc per call, the API key as a
// bearer token. Failures become an Rpc_Error whose message is a sentence for the
// user: the server's own error message, or what an HTTP status means.

export class Rpc_Error extends Error {
  // `kind`: "unauthorized", "too_large", "network", "http", "protocol" or "rpc"
  // (then `code` is the JSON-RPC error code).
  constructor(message, kind, code = null) {
    super(message);
    this.name = 'Rpc_Error';
    this.kind = kind;
    this.code = code;
  }
}

// What an error reply without a message of its own means.
const code_messages = new Map([
  [-32700, 'The agent could not parse the request.'],
  [-32600, 'The agent refused the request as invalid.'],
  [-32601, 'The agent does not offer this operation.'],
  [-32602, 'The agent refused the request\'s parameters.'],
  [-32603, 'The agent failed to carry out the request; its log has the reason.'],
]);

let next_id = 1;

export async function rpc_call(api_key, method, params = {}) {
  const id = next_id++;
  let response;
  try {
    response = await fetch('/rpc', {
      method: 'POST',
      headers: {'Content-Type': 'application/json', 'Authorization': `Bearer ${api_key}`},
      body: JSON.stringify({jsonrpc: '2.0', id, method, params}),
      cache: 'no-store',
    });
  } catch (error) {
    throw new Rpc_Error('The agent cannot be reached: the network request failed. ' +
                        'Check that "backup-agent serve" is running.', 'network');
  }
  if (response.status === 401) {
    throw new Rpc_Error('The API key was not accepted. Sign in with the agent\'s API key.', 'unauthorized');
  }
  if (response.status === 413) {
    throw new Rpc_Error('The request is larger than the agent accepts.', 'too_large');
  }
  if (!response.ok) {
    throw new Rpc_Error(`The agent answered with HTTP status ${response.status}.`, 'http');
  }
  let reply;
  try {
    reply = await response.json();
  } catch (error) {
    throw new Rpc_Error('The agent\'s answer is not valid JSON.', 'protocol');
  }
  if (reply === null || typeof reply !== 'object' || reply.id !== id) {
    throw new Rpc_Error('The agent\'s answer is not a JSON-RPC reply to this request.', 'protocol');
  }
  if (reply.error) {
    const code = Number(reply.error.code);
    const text = typeof reply.error.message === 'string' ? reply.error.message.trim() : '';
    const message = text || code_messages.get(code) || `The agent failed with error ${code}.`;
    throw new Rpc_Error(message, 'rpc', code);
  }
  if (!('result' in reply)) {
    throw new Rpc_Error('The agent\'s answer carries neither a result nor an error.', 'protocol');
  }
  return reply.result;
}
