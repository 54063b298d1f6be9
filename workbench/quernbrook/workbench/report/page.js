"use strict";

// Pictures are drawn on a canvas, which knows nothing of the page's colours.
const dark = matchMedia("(prefers-color-scheme: dark)");

function figures() {
  return Bokeh.documents.flatMap((one) => one.roots());
}

function paint() {
  const style = getComputedStyle(document.documentElement);
  const text = style.getPropertyValue("--text").trim();
  const line = style.getPropertyValue("--line").trim();
  for (const figure of figures()) {
    figure.title.text_color = text;
    figure.outline_line_color = line;
    for (const part of [...figure.left, ...figure.below, ...figure.right, ...figure.center]) {
      const colours = {
        axis_label_text_color: text,
        major_label_text_color: text,
        label_text_color: text,
        axis_line_color: line,
        major_tick_line_color: line,
        minor_tick_line_color: line,
        grid_line_color: line,
        inactive_fill_color: style.getPropertyValue("--page").trim(),
      };
      if (part.type === "ColorBar") {
        colours.background_fill_color = null;
      }
      for (const [name, colour] of Object.entries(colours)) {
        if (name in part.properties) {
          part[name] = colour;
        }
      }
    }
  }
}

// They may be drawn only after this script.
function paintWhenDrawn() {
  const wanted = document.querySelectorAll("figure").length;
  if (figures().length < wanted) {
    setTimeout(paintWhenDrawn, 20);
    return;
  }
  paint();
  document.documentElement.dataset.drawn = "true";
}

dark.addEventListener("change", paint);
paintWhenDrawn();

const body = document.querySelector("#symbols tbody");
const rows = [...body.rows];
const heads = [...document.querySelectorAll("#symbols thead th")];

function sortBy(column, ascending) {
  const key = (row) => {
    const cell = row.cells[column];
    if (column === 0) {
      return cell.textContent;
    }
    return "number" in cell.dataset ? Number(cell.dataset.number) : null;
  };
  const compare = (left, right) => {
    const [a, b] = [key(left), key(right)];
    // Those without a number stay last.
    if (a === null || b === null) {
      return (a === null) - (b === null);
    }
    return (a < b ? -1 : a > b ? 1 : 0) * (ascending ? 1 : -1);
  };
  body.append(...rows.sort(compare));
  heads.forEach((head, place) => {
    if (place === column) {
      head.setAttribute("aria-sort", ascending ? "ascending" : "descending");
    } else {
      head.removeAttribute("aria-sort");
    }
  });
}

heads.forEach((head, column) => {
  head.querySelector("button").addEventListener("click", () => {
    const sorted = head.getAttribute("aria-sort");
    // Names from the first, numbers from the largest.
    sortBy(column, sorted ? sorted === "descending" : column === 0);
  });
});

const wanted = document.querySelector("#wanted");
wanted.addEventListener("input", () => {
  const text = wanted.value.trim().toLowerCase();
  let shown = 0;
  for (const row of rows) {
    row.hidden = !row.cells[0].textContent.toLowerCase().includes(text);
    shown += row.hidden ? 0 : 1;
  }
  document.querySelector("#count").textContent = `${shown} of ${rows.length}`;
});
