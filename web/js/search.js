// The search screen: the box, the type tabs with their counts, the filters,
// the results and their paging. Searches while typing are light (no
// fragments, no counts, no history), at most one every 150 ms: the first
// change at once, the last always; a pause or Enter sends the full search.
// While the user types, the last word is matched as a prefix; Enter searches
// the text exactly as typed. A pause keeps the prefix, so that the hits on
// screen do not vanish when the user stops in the middle of a word.
import { ApiError, checkFile } from './api.js';
import { fullKeyword, typingKeyword } from './keyword.js';
import { messageFor } from './messages.js';
import { renderHit } from './results.js';

const SEARCH = 'KEST.Ondri.FileIndexing.Search';
const INDICATE = 'KEST.Ondri.FileIndexing.Indicate';
const TYPING_INTERVAL = 150;
const PAUSE_DELAY = 600;
const PAGE = 50;
const TYPES = ['all', 'document', 'photo', 'video', 'audio', 'folder', 'other'];
const FIELDS = [
  'KESTMDPath', 'KESTMDFSName', 'KESTMDExtension', 'KESTMDIsDir', 'KESTMDFSSize', 'KESTMDMTime',
  'KESTMDOwnerUserID',
];
const HIGHLIGHT = [
  { field: 'KESTMDTextContent', frag_length: 160, num_fragments: 2 },
  { field: 'KESTMDFSName', frag_length: 2000, num_fragments: 1 },
];
const UNITS = { B: 1, KB: 1024, MB: 1024 ** 2, GB: 1024 ** 3 };

function randomId() {
  const bytes = new Uint8Array(16);
  crypto.getRandomValues(bytes);
  return Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join('');
}

export class SearchScreen {
  constructor(api, elements) {
    this.api = api;
    this.el = elements;
    // One query id per page: the server stops a search that a newer one of
    // the same id overtook, and refuses older serials.
    this.queryId = randomId();
    this.serial = 0;
    this.latest = 0;
    this.text = '';
    this.type = 'all';
    this.hits = [];
    this.total = 0;
    this.owners = new Map();
    this.timers = [];
    this.lastTyping = -Infinity;  // when the last search while typing was sent
    this.literal = false;  // Enter: the text as typed, no prefix
    this.onPaint = null;
    this.bind();
  }

  bind() {
    const { box, form, tabs, filters, more, hits } = this.el;
    box.addEventListener('input', () => this.typed());
    form.addEventListener('submit', (event) => {
      event.preventDefault();
      this.literal = true;
      this.now('full');
    });
    box.addEventListener('keydown', (event) => {
      if (event.key === 'ArrowDown') {
        event.preventDefault();
        this.focusHit(0);
      }
    });
    for (const tab of tabs.querySelectorAll('[role=tab]')) {
      tab.addEventListener('click', () => this.selectType(tab.dataset.type));
    }
    tabs.addEventListener('keydown', (event) => this.tabKeys(event));
    filters.addEventListener('change', () => this.now('full'));
    filters.addEventListener('submit', (event) => {
      event.preventDefault();
      this.now('full');
    });
    filters.addEventListener('reset', () => setTimeout(() => this.now('full'), 0));
    more.addEventListener('click', () => this.search('full', true));
    hits.addEventListener('keydown', (event) => this.hitKeys(event));
    hits.addEventListener('click', (event) => this.open(event));
  }

  // --- typing -------------------------------------------------------------

  typed() {
    this.text = this.el.box.value;
    this.typedAt = performance.now();
    this.literal = false;
    this.clearTimers();
    // A keystroke after a quiet spell searches at once, so that its hits
    // come as fast as the server answers; quicker keystrokes wait their
    // turn, and the newest text always gets its search.
    const wait = this.lastTyping + TYPING_INTERVAL - performance.now();
    const send = () => {
      this.lastTyping = performance.now();
      this.search('typing');
    };
    if (wait <= 0) send();
    else this.timers.push(setTimeout(send, wait));
    this.timers.push(setTimeout(() => this.search('full'), PAUSE_DELAY));
  }

  now(kind) {
    this.text = this.el.box.value;
    this.clearTimers();
    this.search(kind);
  }

  clearTimers() {
    for (const timer of this.timers) clearTimeout(timer);
    this.timers = [];
  }

  // Runs the search again as it stands (after signing in again, say).
  refresh() {
    if (this.text.trim() !== '' || this.hasFilters()) this.now('full');
  }

  // --- parameters ---------------------------------------------------------

  criteria() {
    const form = this.el.filters.elements;
    const list = [];
    for (const ext of String(form.ext.value).split(/[\s,]+/)) {
      const clean = ext.replace(/^\./, '');
      if (clean) list.push({ field: 'KESTMDExtension', value: clean });
    }
    const unit = UNITS[form.unit.value] || 1;
    const low = form.minsize.value === '' ? '' : String(Math.round(Number(form.minsize.value) * unit));
    const high = form.maxsize.value === '' ? '' : String(Math.round(Number(form.maxsize.value) * unit));
    if (low || high) list.push({ field: 'KESTMDFSSize', value: `${low}..${high}` });
    const from = form.from.value ? Math.floor(new Date(`${form.from.value}T00:00:00`).getTime() / 1000) : '';
    const to = form.to.value ? Math.floor(new Date(`${form.to.value}T23:59:59`).getTime() / 1000) : '';
    if (from !== '' || to !== '') list.push({ field: 'KESTMDMTime', value: `${from}..${to}` });
    if (form.owner.value) list.push({ field: 'KESTMDOwnerUserID', value: form.owner.value });
    return list;
  }

  shares() {
    const share = this.el.filters.elements.share.value;
    return share ? [share] : [];
  }

  hasFilters() {
    return this.criteria().length > 0 || this.shares().length > 0;
  }

  // --- searching ----------------------------------------------------------

  async search(kind, append = false) {
    const text = this.text;
    const literal = this.literal;
    const keyword = literal ? fullKeyword(text) : typingKeyword(text);
    if (keyword === '' && !this.hasFilters()) {
      this.latest = ++this.serial;
      this.clearResults();
      return;
    }
    const serial = ++this.serial;
    this.latest = serial;
    const from = append ? this.hits.length : 0;
    const params = {
      query_id: this.queryId,
      query_serial: serial,
      keyword,
      from,
      size: PAGE,
      fields: FIELDS,
      file_type: this.type,
      indice: this.shares(),
      criteria_list: this.criteria(),
      search_weight_list: [],
      agent: 'web',
    };
    if (kind === 'full') {
      // Only the full search goes into the history, as the user typed it.
      params.orig_keyword = fullKeyword(text);
      params.highlight = HIGHLIGHT;
    }
    const started = performance.now();
    const typedAt = this.typedAt;
    let data;
    try {
      data = await this.api.call(SEARCH, 'search', params);
    } catch (error) {
      if (serial !== this.latest) return;
      const code = error instanceof ApiError ? error.code : 117;
      // A newer search overtook this one, or the keyword is half typed
      // (an open quote, a trailing AND): not worth a message.
      if (code === 1600 || (!literal && code === 1001) || (kind === 'typing' && code === 111)) return;
      this.showError(messageFor(code));
      return;
    }
    if (serial !== this.latest) return;
    const answered = performance.now();
    this.show(data, append, fullKeyword(text));
    if (this.onPaint) {
      // After the next frame: the results are on the screen.
      requestAnimationFrame(() => setTimeout(() => this.onPaint({ kind, serial, text, started, answered, typedAt })));
    }
    if (kind === 'full' && !append) this.count(serial, keyword);
  }

  // The counts of the type tabs. Indicate counts over every shared folder;
  // with one folder chosen, each type is a search of its own (no hits).
  async count(serial, keyword) {
    const criteria = this.criteria();
    let counts;
    try {
      if (this.shares().length === 0) {
        counts = await this.api.call(INDICATE, 'indicate', {
          keyword, criteria_list: criteria, file_type: TYPES, search_weight_list: [],
        });
      } else {
        const totals = await Promise.all(TYPES.map((type) => this.api.call(SEARCH, 'search', {
          keyword, from: 0, size: 0, fields: [], file_type: type, indice: this.shares(),
          criteria_list: criteria, search_weight_list: [], query_serial: 0,
        })));
        counts = Object.fromEntries(TYPES.map((type, i) => [type, totals[i].total]));
      }
    } catch {
      counts = null;
    }
    if (serial !== this.latest) return;
    for (const tab of this.el.tabs.querySelectorAll('[role=tab]')) {
      const count = counts && Number.isInteger(counts[tab.dataset.type]) ? counts[tab.dataset.type] : null;
      tab.querySelector('.count').textContent = count === null ? '' : String(count);
    }
    this.el.tabs.classList.remove('stale');
  }

  clearResults() {
    this.hits = [];
    this.total = 0;
    this.el.hits.replaceChildren();
    this.el.summary.textContent = '';
    this.el.notices.replaceChildren();
    this.el.more.hidden = true;
    for (const count of this.el.tabs.querySelectorAll('.count')) count.textContent = '';
  }

  show(data, append, keyword) {
    const hits = Array.isArray(data.hits) ? data.hits : [];
    const doc = this.el.hits.ownerDocument;
    if (!append) {
      this.hits = [];
      this.el.hits.replaceChildren();
      this.el.tabs.classList.add('stale');
    }
    const items = [];
    for (const hit of hits) {
      if (!hit || typeof hit !== 'object') continue;
      items.push(renderHit(doc, hit, this.hits.length));
      this.hits.push(hit);
      if (hit.KESTMDOwnerUserID && hit.KESTMDOwnerUserName) {
        this.owners.set(String(hit.KESTMDOwnerUserID), hit.KESTMDOwnerUserName);
      }
    }
    this.el.hits.append(...items);
    this.total = Number.isInteger(data.total) ? data.total : this.hits.length;
    this.el.summary.textContent = this.total === 0
      ? `No file matches “${keyword}”.`
      : `${this.hits.length} of ${this.total} ${this.total === 1 ? 'file' : 'files'}`;
    this.el.more.hidden = this.hits.length >= this.total || hits.length === 0;
    this.showNotices(Array.isArray(data.unavail) ? data.unavail : []);
    this.fillOwners();
  }

  showNotices(unavail) {
    const notices = [];
    const names = [...new Set(unavail.map((id) => String(id).replace(/^fileindex_/, '')))];
    if (names.length > 0) {
      const p = this.el.notices.ownerDocument.createElement('p');
      p.className = 'notice';
      p.textContent = `Results may be incomplete: ${names.length === 1 ? 'the shared folder' : 'the shared folders'} ${names.map((n) => `“${n}”`).join(', ')} cannot be searched right now.`;
      notices.push(p);
    }
    this.el.notices.replaceChildren(...notices);
  }

  showError(message) {
    const p = this.el.notices.ownerDocument.createElement('p');
    p.className = 'notice error';
    p.setAttribute('role', 'alert');
    p.textContent = message;
    this.el.notices.replaceChildren(p);
  }

  fillOwners() {
    const select = this.el.filters.elements.owner;
    const chosen = select.value;
    const options = [new Option('Anyone', '')];
    for (const [uid, name] of [...this.owners].sort((a, b) => a[1].localeCompare(b[1]))) {
      options.push(new Option(name, uid));
    }
    select.replaceChildren(...options);
    select.value = chosen;
    if (select.value !== chosen) select.value = '';
  }

  setShares(names) {
    const select = this.el.filters.elements.share;
    const chosen = select.value;
    select.replaceChildren(new Option('All shared folders', ''), ...names.map((n) => new Option(n, n)));
    select.value = names.includes(chosen) ? chosen : '';
  }

  selectType(type) {
    this.type = type;
    for (const tab of this.el.tabs.querySelectorAll('[role=tab]')) {
      const selected = tab.dataset.type === type;
      tab.setAttribute('aria-selected', String(selected));
      tab.tabIndex = selected ? 0 : -1;
    }
    this.now('full');
  }

  tabKeys(event) {
    if (event.key !== 'ArrowRight' && event.key !== 'ArrowLeft') return;
    const tabs = [...this.el.tabs.querySelectorAll('[role=tab]')];
    const at = tabs.indexOf(event.target);
    if (at < 0) return;
    const next = tabs[(at + (event.key === 'ArrowRight' ? 1 : tabs.length - 1)) % tabs.length];
    next.focus();
    this.selectType(next.dataset.type);
  }

  // --- keyboard and opening ----------------------------------------------

  focusHit(index) {
    const items = this.el.hits.children;
    if (index < 0) {
      this.el.box.focus();
      return;
    }
    const item = items[Math.min(index, items.length - 1)];
    if (!item) return;
    (item.querySelector('a.hit-name') || item).focus();
    item.scrollIntoView({ block: 'nearest' });
  }

  hitKeys(event) {
    const item = event.target.closest('.hit');
    if (!item) return;
    const index = Number(item.dataset.index);
    if (event.key === 'ArrowDown') {
      event.preventDefault();
      this.focusHit(index + 1);
    } else if (event.key === 'ArrowUp') {
      event.preventDefault();
      this.focusHit(index - 1);
    } else if (event.key === 'Escape') {
      this.el.box.focus();
    }
  }

  // Opens a hit after asking the server whether it may be opened, so that a
  // file gone or refused is told in words on this page.
  async open(event) {
    const link = event.target.closest('a[data-action]');
    if (!link || event.button !== 0 || event.ctrlKey || event.metaKey || event.shiftKey || event.altKey) return;
    event.preventDefault();
    const code = await checkFile(link.href);
    if (code !== 0) {
      this.showError(messageFor(code));
      return;
    }
    if (link.dataset.action === 'download') {
      const save = link.ownerDocument.createElement('a');
      save.href = link.href;
      save.download = '';
      save.click();
    } else {
      window.open(link.href, '_blank', 'noopener,noreferrer');
    }
  }
}
