// Lists as tables: sorted by their heads, filtered, a page of rows at a time however many there are, and chosen from. On
// a narrow screen the same rows are cards, and a choice of its own sorts them.
import { byId } from './form.js';
import { fill } from './wording.js';

const PAGE = 100;
const collator = new Intl.Collator(document.documentElement.lang || 'en-US', { numeric: true });
const compare = (a, b) => (typeof a === 'number' ? a - b : collator.compare(a, b));

/** A cell of a row; its label tells on a card what a number is. */
export function cell(className, ...content) {
  const made = document.createElement('td');
  made.className = className;
  made.append(...content);
  return made;
}

export const textElement = (tag, className, text) => Object.assign(document.createElement(tag), { className, textContent: text });

/** The head of a column becomes a button. */
function makeHead(head, sort) {
  const button = textElement('button', 'sort', head.textContent);
  button.type = 'button';
  button.addEventListener('click', sort);
  head.replaceChildren(button);
}

/**
 * Makes a list of a table that has a head for each column and an empty body.
 * `columns`: for each head { value: what a row is sorted by, down: whether the largest comes first }, or null;
 * `row`: makes a row's cells; `id`: tells rows apart; `first`: the column that it is sorted by to begin with;
 * `onShow`: called after rows were put on the page; `onReach`: called when somebody asks for what may lie behind the
 * rows that are there (the last page, or another order).
 */
export function makeList(table, { columns, row, id = (item) => item.id, first = 0, onShow = () => {}, onReach = () => {} }) {
  const heads = [...table.tHead.rows[0].cells];
  const body = table.tBodies[0];
  const words = byId('list-words').dataset;
  const picked = new Set();
  let rows = [];
  let fits = () => true;
  let matching = [];
  let page = 0;
  let order = { column: first, down: columns[first]?.down ?? false };

  const pager = document.createElement('nav');
  pager.className = 'pager';
  pager.setAttribute('aria-label', words.pages);
  const range = textElement('span', 'hint range', '');
  const turn = (text, step) => {
    const button = textElement('button', '', text);
    button.type = 'button';
    button.addEventListener('click', () => {
      page += step;
      show();
      table.scrollIntoView({ block: 'start' });
      if (page === lastPage()) onReach();
    });
    return button;
  };
  const back = turn(words.back, -1);
  const on = turn(words.on, 1);
  pager.append(back, range, on);
  table.after(pager);

  const chooser = document.createElement('label');
  chooser.className = 'sort-choice';
  const choice = document.createElement('select');
  heads.forEach((head, column) => {
    if (columns[column]) choice.add(new Option(head.textContent, String(column)));
  });
  chooser.append(`${words.sort} `, choice);
  table.before(chooser);
  chooser.hidden = choice.options.length < 2;

  const lastPage = () => Math.max(0, Math.ceil(matching.length / PAGE) - 1);
  const onPage = () => matching.slice(page * PAGE, (page + 1) * PAGE);

  /** Sorts what matches; values are asked for once a row. */
  function arrange() {
    const column = columns[order.column];
    matching = rows.filter(fits);
    if (!column) return;
    const sign = order.down ? -1 : 1;
    matching = matching.map((item) => [column.value(item), item])
      .sort(([a], [b]) => sign * compare(a, b)).map(([, item]) => item);
  }

  function makeRow(item) {
    const made = document.createElement('tr');
    made.className = 'entry';
    made.dataset.id = id(item);
    made.append(...row(item, picked.has(id(item))));
    heads.forEach((head, column) => {
      if (made.cells[column] && head.textContent) made.cells[column].dataset.label = head.textContent;
    });
    return made;
  }

  function show() {
    page = Math.min(Math.max(page, 0), lastPage());
    body.replaceChildren(...onPage().map(makeRow));
    table.hidden = matching.length === 0;
    chooser.hidden = matching.length < 2 || choice.options.length < 2;
    pager.hidden = matching.length <= PAGE;
    back.disabled = page === 0;
    on.disabled = page === lastPage();
    range.textContent = fill(words.range, { from: page * PAGE + 1, to: Math.min((page + 1) * PAGE, matching.length), total: matching.length });
    heads.forEach((head, column) => {
      if (columns[column] && column === order.column) head.setAttribute('aria-sort', order.down ? 'descending' : 'ascending');
      else head.removeAttribute('aria-sort');
    });
    choice.value = String(order.column);
    onShow();
  }

  function sortBy(column, again) {
    order = { column, down: again && column === order.column ? !order.down : columns[column].down ?? false };
    page = 0;
    arrange();
    show();
    onReach();
  }

  heads.forEach((head, column) => {
    if (columns[column]) makeHead(head, () => sortBy(column, true));
  });
  choice.addEventListener('change', () => sortBy(Number(choice.value), false));
  body.addEventListener('change', ({ target }) => {
    if (!target.matches('.pick')) return;
    const chosen = target.closest('tr').dataset.id;
    if (target.checked) picked.add(chosen);
    else picked.delete(chosen);
    onShow();
  });

  return {
    picked,
    /** The rows that match, in their order, and those of them that are on the page. */
    matching: () => matching,
    onPage,
    rowOf: (element) => rows.find((item) => String(id(item)) === element.closest('tr').dataset.id),
    /** Takes other rows; the page and the order stay. */
    set(items) {
      rows = items;
      arrange();
      show();
    },
    /** Only rows for which `test` is true; back to the first page. */
    filter(test) {
      fits = test;
      page = 0;
      arrange();
      show();
    },
    /** Chooses rows, or no longer. */
    pick(items, wanted) {
      for (const item of items) {
        if (wanted) picked.add(id(item));
        else picked.delete(id(item));
      }
      show();
    },
    show,
  };
}
