/** Requests to the server, and the session that they belong to. */

/** An answer that is an error; `status` is 0 when there was no answer. The message is for the reader. */
export class ApiError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

/** The person who is logged in, as the server describes the session, or null. */
export let session = null;

/** Told by "logout" when the session has ended. */
export const events = new EventTarget();

const kTimeoutMilliseconds = 20000;

async function request(path, options, signal) {
  const limit = AbortSignal.timeout(kTimeoutMilliseconds);
  let response;
  let body;
  try {
    response = await fetch(`/api/v1/${path}`,
      { ...options, signal: signal ? AbortSignal.any([signal, limit]) : limit });
    body = response.status === 204 ? {} : await bodyOf(response);
  } catch (error) {
    if (signal?.aborted) {
      throw error;
    }
    throw new ApiError(0, 'The server does not answer. Check that koduweb runs and that the network works.');
  }
  if (response.status === 401 && path !== 'login') {
    end();
  }
  if (!response.ok || !body) {
    throw new ApiError(response.status, body?.error ??
      `The answer has status ${response.status} and is not JSON. Check the proxy in front of koduweb.`);
  }
  return body;
}

/** null for what is not JSON. */
async function bodyOf(response) {
  try {
    return await response.json();
  } catch (error) {
    if (error instanceof SyntaxError) {
      return null;
    }
    throw error;
  }
}

/** Reads a resource below /api/v1/. */
export function get(path, signal) {
  return request(path, { headers: { Accept: 'application/json' } }, signal);
}

/** Changes something, with the session's token. */
export function post(path, body = {}) {
  return request(path, { method: 'POST', body: JSON.stringify(body),
    headers: { 'Content-Type': 'application/json', 'X-Kodu-Token': session?.token ?? '' } });
}

/** Reads the session of this browser; null without one. */
export async function resume() {
  try {
    session = await get('session');
  } catch (error) {
    if (error.status !== 401) {
      throw error;
    }
    session = null;
  }
  return session;
}

export async function login(role, password) {
  await post('login', { role, password });
  return resume();
}

export async function logout() {
  await post('logout');
  end();
}

function end() {
  if (session) {
    session = null;
    events.dispatchEvent(new Event('logout'));
  }
}

/** True when the person may change tasks, as far as the page knows; the database decides. */
export function mayChange() {
  return Boolean(session?.may_change && !session.read_only);
}
