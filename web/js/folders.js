// The folders screen: the indexed folders the user may see (administrators
// see all), with paging and sorting; adding, changing, reindexing and
// removing a folder; the indexing status, and pausing and resuming it.
import { ApiError } from './api.js';
import { humanDate } from './format.js';
import { messageFor } from './messages.js';

const FOLDER = 'KEST.Ondri.FileIndexing.Folder';
const STATUS = 'KEST.Ondri.FileIndexing.Status';
const PAGE = 20;
const TYPES = [
  ['document', 'Documents'],
  ['photo', 'Photos'],
  ['video', 'Videos'],
  ['audio', 'Audio'],
];
const STATUS_WORDS = {
  processing: 'Indexing',
  paused: 'Paused',
  finished: 'Up to date',
  unavailable: 'Unavailable',
};

// A folder path as the folder store takes it: absolute, canonical, no
// control characters. The server checks again; this only says it early.
export function pathProblem(path) {
  if (path === '') return 'Enter the folder’s path, for example /volume1/public/reports.';
  if (!path.startsWith('/')) return 'The path must start with / (for example /volume1/public/reports).';
  // eslint-disable-next-line no-control-regex
  if (/[\u0000-\u001f\u007f]/.test(path)) return 'The path holds control characters.';
  const parts = path.replace(/\/$/, '').split('/').slice(1);
  if (parts.some((p) => p === '' || p === '.' || p === '..')) {
    return 'The path must not hold empty, “.” or “..” parts.';
  }
  return '';
}

export class FoldersScreen {
  constructor(api, elements, onShares) {
    this.api = api;
    this.el = elements;
    this.onShares = onShares;
    this.offset = 0;
    this.sortBy = 'path';
    this.direction = 'asc';
    this.timer = null;
    this.bind();
  }

  bind() {
    const { addForm, table, prev, next, pauseForm, resume } = this.el;
    addForm.addEventListener('submit', (event) => {
      event.preventDefault();
      this.add();
    });
    addForm.elements.path.addEventListener('input', () => {
      addForm.elements.path.setCustomValidity('');
      this.el.addError.textContent = '';
    });
    for (const button of table.querySelectorAll('th button[data-sort]')) {
      button.addEventListener('click', () => this.sort(button.dataset.sort));
    }
    prev.addEventListener('click', () => this.page(-1));
    next.addEventListener('click', () => this.page(1));
    pauseForm.addEventListener('submit', (event) => {
      event.preventDefault();
      this.pause();
    });
    resume.addEventListener('click', () => this.resume());
    this.el.body.addEventListener('change', (event) => this.changeTypes(event));
    this.el.body.addEventListener('click', (event) => this.rowAction(event));
  }

  show() {
    this.el.admin.hidden = !this.api.isAdmin;
    this.refresh();
    clearInterval(this.timer);
    // The status moves on its own while the indexer works.
    this.timer = setInterval(() => this.refreshStatus(), 2000);
  }

  hide() {
    clearInterval(this.timer);
    this.timer = null;
  }

  message(text, isError = false) {
    const p = this.el.message;
    p.textContent = text;
    p.className = isError ? 'notice error' : 'notice';
    p.setAttribute('role', isError ? 'alert' : 'status');
    p.hidden = text === '';
  }

  failed(error, context) {
    this.message(messageFor(error instanceof ApiError ? error.code : 117, context), true);
  }

  async refresh() {
    await Promise.all([this.refreshList(), this.refreshStatus(), this.refreshShares()]);
  }

  async refreshShares() {
    try {
      const data = await this.api.call(FOLDER, 'list_group');
      const shares = (data.groups || [])
        .filter((g) => typeof g.id === 'string' && g.id.startsWith('share:'))
        .map((g) => g.id.slice(6));
      this.onShares(shares);
    } catch {
      // The share filter keeps what it had.
    }
  }

  async refreshList() {
    let data;
    try {
      data = await this.api.call(FOLDER, 'list', {
        offset: this.offset, limit: PAGE, sort_by: this.sortBy, direction: this.direction,
        group: 'all', pattern: '', additional: ['status'],
      });
    } catch (error) {
      this.failed(error, 'folder');
      return;
    }
    const folders = Array.isArray(data.folders) ? data.folders : [];
    const total = Number.isInteger(data.total) ? data.total : folders.length;
    if (folders.length === 0 && this.offset > 0 && total > 0) {
      this.offset = Math.max(0, Math.floor((total - 1) / PAGE) * PAGE);
      this.refreshList();
      return;
    }
    this.el.body.replaceChildren(...folders.map((f) => this.row(f)));
    this.el.empty.hidden = folders.length > 0;
    this.el.range.textContent = total === 0 ? '' : `${this.offset + 1}–${this.offset + folders.length} of ${total}`;
    this.el.prev.disabled = this.offset === 0;
    this.el.next.disabled = this.offset + folders.length >= total;
    for (const th of this.el.table.querySelectorAll('th[data-column]')) {
      th.setAttribute('aria-sort', th.dataset.column === this.sortBy
        ? (this.direction === 'asc' ? 'ascending' : 'descending') : 'none');
    }
  }

  row(folder) {
    const doc = this.el.body.ownerDocument;
    const cell = (text, className) => {
      const td = doc.createElement('td');
      if (className) td.className = className;
      td.textContent = text;
      return td;
    };
    const tr = doc.createElement('tr');
    tr.dataset.path = folder.path;
    const name = doc.createElement('th');
    name.scope = 'row';
    name.textContent = folder.name || folder.path;
    tr.append(name, cell(folder.path, 'path'), cell(folder.owner || ''), cell(folder.share || ''));
    const types = doc.createElement('td');
    types.className = 'types';
    for (const [key, label] of TYPES) {
      const box = doc.createElement('input');
      box.type = 'checkbox';
      box.checked = folder[key] !== false;
      box.dataset.type = key;
      box.setAttribute('aria-label', `${label} in ${folder.name || folder.path}`);
      const text = doc.createElement('label');
      text.append(box, doc.createTextNode(` ${label}`));
      types.append(text);
    }
    tr.append(types);
    const status = (folder.additional && folder.additional.status) || '';
    const statusCell = cell(STATUS_WORDS[status] || status, `status status-${status}`);
    statusCell.dataset.status = status;
    tr.append(statusCell, cell(humanDate(folder.created)));
    const actions = doc.createElement('td');
    actions.className = 'actions';
    for (const [action, label] of [['reindex', 'Reindex'], ['delete', 'Remove']]) {
      const button = doc.createElement('button');
      button.type = 'button';
      button.dataset.action = action;
      button.textContent = label;
      button.setAttribute('aria-label', `${label} ${folder.name || folder.path}`);
      actions.append(button);
    }
    tr.append(actions);
    return tr;
  }

  sort(column) {
    if (this.sortBy === column) this.direction = this.direction === 'asc' ? 'desc' : 'asc';
    else {
      this.sortBy = column;
      this.direction = 'asc';
    }
    this.offset = 0;
    this.refreshList();
  }

  page(step) {
    this.offset = Math.max(0, this.offset + step * PAGE);
    this.refreshList();
  }

  async add() {
    const form = this.el.addForm.elements;
    const path = form.path.value.trim();
    const problem = pathProblem(path);
    if (problem) {
      form.path.setCustomValidity(problem);
      this.el.addError.textContent = problem;
      form.path.focus();
      return;
    }
    const folder = { path };
    if (form.name.value.trim()) folder.name = form.name.value.trim();
    for (const [key] of TYPES) folder[key] = form[key].checked;
    try {
      await this.api.call(FOLDER, 'add', { folder: [folder] });
    } catch (error) {
      this.el.addError.textContent = messageFor(error instanceof ApiError ? error.code : 117, 'folder');
      return;
    }
    this.el.addForm.reset();
    this.message(`Added ${path}. Its files are being indexed.`);
    this.refresh();
  }

  async changeTypes(event) {
    const box = event.target;
    const tr = box.closest('tr[data-path]');
    if (!box.dataset.type || !tr) return;
    try {
      await this.api.call(FOLDER, 'set', { folder: [{ path: tr.dataset.path, [box.dataset.type]: box.checked }] });
      this.message(`Changed the file types of ${tr.dataset.path}.`);
    } catch (error) {
      box.checked = !box.checked;
      this.failed(error, 'folder');
    }
    this.refreshList();
  }

  async rowAction(event) {
    const button = event.target.closest('button[data-action]');
    const tr = button && button.closest('tr[data-path]');
    if (!tr) return;
    const path = tr.dataset.path;
    try {
      if (button.dataset.action === 'delete') {
        if (!window.confirm(`Remove ${path} from the index? Its files will no longer be found.`)) return;
        await this.api.call(FOLDER, 'delete', { path: [path] });
        this.message(`Removed ${path} from the index.`);
      } else {
        await this.api.call(FOLDER, 'reindex', { path: [path] });
        this.message(`Reindexing ${path}.`);
      }
    } catch (error) {
      this.failed(error, 'folder');
    }
    this.refresh();
  }

  async refreshStatus() {
    let status, summary;
    try {
      [status, summary] = await Promise.all([
        this.api.call(STATUS, 'get'),
        this.api.call(FOLDER, 'summary'),
      ]);
    } catch (error) {
      this.failed(error, 'status');
      return;
    }
    const index = (status.status && status.status.index) || '';
    this.el.status.textContent = STATUS_WORDS[index] || index;
    this.el.status.dataset.status = index;
    const s = summary || {};
    this.el.summary.textContent = `${s.total || 0} indexed ${s.total === 1 ? 'folder' : 'folders'} (${s.mine || 0} yours) in ${s.shares || 0} shared ${s.shares === 1 ? 'folder' : 'folders'}${s.indexing_paused ? '; indexing is paused' : ''}.`;
    this.el.resume.disabled = !s.indexing_paused;
    if (this.el.body.querySelector('[data-status=processing], [data-status=paused]') || index !== this.lastIndex) {
      this.lastIndex = index;
      this.refreshList();
    }
  }

  async pause() {
    const seconds = Number(this.el.pauseForm.elements.duration.value);
    try {
      await this.api.call(STATUS, 'pause', { length: seconds });
      this.message(seconds > 0 ? `Indexing is paused for ${Math.round(seconds / 60)} minutes.` : 'Indexing is paused until you resume it.');
    } catch (error) {
      this.failed(error, 'status');
    }
    this.refreshStatus();
  }

  async resume() {
    try {
      await this.api.call(STATUS, 'resume');
      this.message('Indexing goes on.');
    } catch (error) {
      this.failed(error, 'status');
    }
    this.refreshStatus();
  }
}
