/** Addresses within the page: "#/tasks?failed=1&sort=late,desc". Each state of a view has one. */

/** Told by "go" when the address has changed. */
export const router = new EventTarget();

/** The path and the parameters of the present address. */
export function place() {
  const [path, query] = location.hash.replace(/^#/, '').split(/\?(.*)/s);
  return { path: path || '/', params: new URLSearchParams(query ?? '') };
}

/** The address of a path with parameters, without those that are empty. */
export function address(path, params) {
  const kept = new URLSearchParams([...new URLSearchParams(params)].filter(([, value]) => value !== ''));
  return `#${path}${kept.size ? `?${kept}` : ''}`;
}

/** Goes to an address; with `isReplaced` the present one does not stay in the browser's history. */
export function go(path, params = {}, isReplaced = false) {
  history[isReplaced ? 'replaceState' : 'pushState'](null, '', address(path, params));
  router.dispatchEvent(new Event('go'));
}

/** Notes a parameter in the address without a change of the view. */
export function note(name, value) {
  const { path, params } = place();
  if ((params.get(name) ?? '') !== value) {
    params.set(name, value);
    history.replaceState(null, '', address(path, params));
  }
}

addEventListener('popstate', () => router.dispatchEvent(new Event('go')));
