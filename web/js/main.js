// The page: sign-in, then the search and folders screens.
import { Api, ApiError } from './api.js';
import { FoldersScreen } from './folders.js';
import { messageFor } from './messages.js';
import { SearchScreen } from './search.js';

const $ = (id) => document.getElementById(id);

let pendingLogin = null;  // resolves when the user signed in again
let previousAccount = '';

const api = new Api((code) => {
  showLogin(messageFor(code));
  return new Promise((resolve) => {
    pendingLogin = resolve;
  });
});

const search = new SearchScreen(api, {
  box: $('q'),
  form: $('search-form'),
  tabs: $('tabs'),
  filters: $('filters-form'),
  notices: $('notices'),
  summary: $('summary'),
  hits: $('hits'),
  more: $('more'),
});

const folders = new FoldersScreen(api, {
  admin: $('admin-only'),
  addForm: $('add-form'),
  addError: $('add-error'),
  table: $('folder-table'),
  body: $('folder-rows'),
  empty: $('folders-empty'),
  range: $('folder-range'),
  prev: $('folder-prev'),
  next: $('folder-next'),
  status: $('index-status'),
  summary: $('folder-summary'),
  pauseForm: $('pause-form'),
  resume: $('resume'),
  message: $('folders-message'),
}, (shares) => search.setShares(shares));

// For the benchmark and the tests: when the results of each search were
// painted, from when it was sent and from the keystroke it answers.
window.kestPaint = [];
search.onPaint = ({ kind, serial, text, started, answered, typedAt }) => {
  const now = performance.now();
  window.kestPaint.push({
    kind, serial, text, ms: now - started, answer: answered - started, fromKey: typedAt === undefined ? null : now - typedAt,
  });
};

function showLogin(note = '') {
  $('app-view').hidden = true;
  $('login-view').hidden = false;
  $('login-note').textContent = note;
  $('login-error').textContent = '';
  $('login-password').value = '';
  (($('login-account').value && $('login-password')) || $('login-account')).focus();
}

function showApp() {
  $('login-view').hidden = true;
  $('app-view').hidden = false;
  $('who').textContent = `${api.account}${api.isAdmin ? ' (administrator)' : ''}`;
  folders.refreshShares();
}

function showScreen(name) {
  const onSearch = name === 'search';
  $('search-view').hidden = !onSearch;
  $('folders-view').hidden = onSearch;
  $('nav-search').setAttribute('aria-current', onSearch ? 'page' : 'false');
  $('nav-folders').setAttribute('aria-current', onSearch ? 'false' : 'page');
  if (onSearch) {
    folders.hide();
    $('q').focus();
  } else {
    folders.show();
  }
}

$('login-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const account = $('login-account').value.trim();
  const password = $('login-password').value;
  if (!account || !password) {
    $('login-error').textContent = messageFor(115);
    return;
  }
  const button = $('login-submit');
  button.disabled = true;
  try {
    await api.login(account, password);
  } catch (error) {
    $('login-error').textContent = messageFor(error instanceof ApiError ? error.code : 117, 'login');
    $('login-password').value = '';
    $('login-password').focus();
    return;
  } finally {
    button.disabled = false;
  }
  // Someone else signing in here starts afresh.
  if (previousAccount && previousAccount !== api.account) {
    search.owners.clear();
    search.el.box.value = '';
    search.text = '';
    search.clearResults();
    showScreen('search');
  }
  previousAccount = api.account;
  showApp();
  if (pendingLogin) {
    // Back to what the user was doing: the call that found the session
    // ended is made again.
    const resolve = pendingLogin;
    pendingLogin = null;
    resolve();
  } else if ($('search-view').hidden) {
    folders.show();
  } else {
    $('q').focus();
    search.refresh();
  }
});

$('sign-out').addEventListener('click', async () => {
  folders.hide();
  await api.logout();
  previousAccount = '';
  search.owners.clear();
  search.el.box.value = '';
  search.text = '';
  search.clearResults();
  showScreen('search');
  $('login-account').value = '';
  showLogin('You are signed out.');
});

$('nav-search').addEventListener('click', () => showScreen('search'));
$('nav-folders').addEventListener('click', () => showScreen('folders'));

// "/" focuses the search box from anywhere but a text field.
document.addEventListener('keydown', (event) => {
  if (event.key !== '/' || event.ctrlKey || event.metaKey || event.altKey) return;
  const target = event.target;
  if (target instanceof HTMLInputElement || target instanceof HTMLTextAreaElement || target instanceof HTMLSelectElement) return;
  if ($('app-view').hidden) return;
  event.preventDefault();
  showScreen('search');
  $('q').focus();
});

if (api.session) {
  showApp();
  showScreen('search');
} else {
  showLogin();
}
