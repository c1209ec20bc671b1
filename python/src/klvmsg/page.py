"""A page that shows a recording and needs nothing else: summary, table by type, rates, messages."""

from __future__ import annotations

import json
from html import escape
from typing import List, Tuple

from .chart import Kind, Row, Story, make_rates, make_svg, title
from .text import plural, printable, size

_NOTICES = 50

_PAGE = """<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<title>{title}</title>
<style>
body {{ font: 15px/1.5 "DejaVu Sans", Verdana, sans-serif; margin: 2em auto; max-width: 75em;
  padding: 0 1em; color: #222; background: #fff; }}
table {{ border-collapse: collapse; }}
th, td {{ text-align: right; padding: 0.2em 0.8em; border-bottom: 1px solid #ddd;
  white-space: nowrap; }}
th:first-child, td:first-child {{ text-align: left; overflow-wrap: anywhere;
  white-space: normal; min-width: 8em; }}
.notice {{ color: #c00000; }}
.drawing, .table {{ overflow-x: auto; }}
.rates svg {{ max-width: 100%; height: auto; }}
#list {{ height: 22em; overflow-y: auto; border: 1px solid #ddd; }}
#rows {{ position: relative; }}
.message {{ position: absolute; width: 100%; height: 22px; border: 0; padding: 0 0.4em; overflow: hidden;
  text-align: left; white-space: pre; font: 13px/22px monospace; color: inherit; background: none; }}
.message:hover, .message.chosen {{ background: #eef3f8; }}
#body {{ min-height: 3em; padding: 0.4em; white-space: pre-wrap; overflow-wrap: anywhere;
  border: 1px solid #ddd; }}
</style>
</head>
<body>
<h1>{title}</h1>
<p>{summary}</p>
{notices}
<h2>By type</h2>
<div class="table"><table>
<tr><th>type</th><th>to</th><th>messages</th><th>bytes in bodies</th><th>smallest</th><th>largest</th>
<th>first at</th><th>last at</th></tr>
{table}
</table></div>
<h2>Rates</h2>
<div class="drawing rates">{rates}</div>
<h2>Messages</h2>
<p><input id="wanted" type="search" placeholder="a type, or what a body says"> <span id="count"></span></p>
<div id="list"><div id="rows"></div></div>
<pre id="body">Click on a message to see its body.</pre>
<h2>The messages between the processes</h2>
<div class="drawing">{messages}</div>
<script type="application/json" id="messages">{listed}</script>
<script>{script}</script>
</body>
</html>
"""

# Of the list only what is in sight has elements: a hundred thousand of them would be too slow.
_SCRIPT = """
"use strict";
const HEIGHT = 22, element = id => document.getElementById(id);
const all = JSON.parse(element("messages").textContent);
let wanted = all.rows, chosen = null;

function line([seconds, connection, direction, type, length, said]) {
  const arrow = direction == "to-server" ? ">" : "<";
  return `${seconds.toFixed(6).padStart(14)} s  #${connection} ${arrow} ${type} ${length} ${said}`;
}

function draw() {
  const first = Math.floor(element("list").scrollTop / HEIGHT);
  const room = Math.ceil(element("list").clientHeight / HEIGHT) + 1;
  element("rows").style.height = `${wanted.length * HEIGHT}px`;
  element("rows").replaceChildren(...wanted.slice(first, first + room).map((message, place) => {
    const button = document.createElement("button");
    button.className = message == chosen ? "message chosen" : "message";
    button.style.top = `${(first + place) * HEIGHT}px`;
    button.textContent = line(message).slice(0, 300);
    button.onclick = () => { chosen = message; show(message); draw(); };
    return button;
  }));
}

function show([seconds, connection, direction, type, length, said]) {
  element("body").textContent =
    `${type}, ${length} bytes, connection #${connection} ${direction}, at ${seconds.toFixed(6)} s\\n${said}`;
}

function choose() {
  const text = element("wanted").value;
  wanted = text ? all.rows.filter(row => row[3].includes(text) || row[5].includes(text)) : all.rows;
  const number = count => count.toLocaleString("en");
  element("count").textContent = `${number(wanted.length)} of ${number(all.rows.length)}`
    + (all.left_out ? `; ${number(all.left_out)} later ones are not listed` : "");
  element("list").scrollTop = 0;
  draw();
}

element("list").onscroll = draw;
element("wanted").oninput = choose;
choose();
"""


def make_page(story: Story, name: str) -> str:
    """A page that needs nothing else: summary, table by type, rates, and the messages."""
    count = sum(len(kind.times) for kind in story.kinds.values())
    total = sum(sum(kind.lengths) for kind in story.kinds.values())
    summary = (f"{plural(count, 'message')} with {size(total)} in bodies on "
               f"{plural(len(story.names), 'connection')} in {story.end:.3f} s. "
               f"Server: {printable(story.server)}.")  # fmt: skip
    return _PAGE.format(
        title=escape(title(story, name)),
        summary=escape(summary),
        notices=_notice_list(story.notices),
        table="\n".join(_table_row(*item) for item in sorted(story.kinds.items())),
        rates=_inline(make_rates(story)),
        messages=_inline(make_svg(story, name)),
        listed=_as_data(story, count),
        script=_SCRIPT,
    )


def _as_data(story: Story, count: int) -> str:
    """The list as JSON in which nothing ends the element that holds it."""
    rows = [row._replace(type=printable(row.type)) for row in story.listed]
    data = json.dumps({"rows": rows, "left_out": count - len(rows)}, separators=(",", ":"))
    return data.replace("<", "\\u003c")


def _notice_list(notices: List[Row]) -> str:
    lines = [f"{row.first:.6f} s, connection #{row.event.connection} {row.event.direction}: "
             f"{row.event.kind}: {printable(row.event.text)}" for row in notices[:_NOTICES]]  # fmt: skip
    if len(notices) > _NOTICES:
        lines.append(f"and {len(notices) - _NOTICES} more")
    items = "".join(f"<li>{escape(line)}</li>\n" for line in lines)
    return f'<ul class="notice">\n{items}</ul>' if lines else ""


def _table_row(key: Tuple[str, str], kind: Kind) -> str:
    cells = (printable(key[0]), key[1][len("to-") :], f"{len(kind.times):,}",
             f"{sum(kind.lengths):,}", f"{min(kind.lengths):,}", f"{max(kind.lengths):,}",
             f"{kind.times[0]:.6f} s", f"{kind.times[-1]:.6f} s")  # fmt: skip
    return "<tr>" + "".join(f"<td>{escape(cell)}</td>" for cell in cells) + "</tr>"


def _inline(svg: str) -> str:
    """Without what only a file of its own has before its root."""
    return svg[svg.index("<svg") :]
