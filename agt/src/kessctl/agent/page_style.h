// How the page looks: light or dark as the reader's system is, one column where it is narrow.
#pragma once

namespace kessctl {

inline constexpr char PAGE_STYLE[] = R"(
:root { color-scheme: light dark; --ink: #1c2126; --soft: #5b6670; --paper: #eef1f4; --card: #fff; --line: #d9dfe5;
  --good: #1a7f4b; --warn: #a15c00; --bad: #c22f2f; --chart: #2367b5; }
@media (prefers-color-scheme: dark) { :root { --ink: #e6eaee; --soft: #9aa6b1; --paper: #14181c; --card: #1e242a;
  --line: #333c45; --good: #4cc38a; --warn: #e8a33d; --bad: #ff7b72; --chart: #6cb0ff; } }
* { box-sizing: border-box; margin: 0; padding: 0; }
body { background: var(--paper); color: var(--ink); font: 15px/1.45 system-ui, sans-serif; }
main { max-width: 1120px; margin: 0 auto; padding: 16px; }
header, section, .problems { background: var(--card); border: 1px solid var(--line); border-radius: 8px;
  padding: 14px 16px; margin-bottom: 16px; overflow-wrap: anywhere; }
header { border-left: 10px solid var(--good); }
header.degraded { border-left-color: var(--warn); }
header.absent { border-left-color: var(--bad); }
h1 { display: inline; font-size: 30px; line-height: 1.1; color: var(--good); }
.degraded h1 { color: var(--warn); }
.absent h1 { color: var(--bad); }
.host { display: inline; margin-left: 12px; font-size: 18px; }
header p:last-child { color: var(--soft); }
h2 { font-size: 13px; color: var(--soft); text-transform: uppercase; letter-spacing: .05em; margin-bottom: 8px; }
ul { list-style: none; }
.problems li { border-left: 4px solid var(--warn); padding-left: 10px; margin: 6px 0; }
.problems .note { border-left-color: var(--line); }
.problems span { color: var(--soft); }
.columns { columns: 2; column-gap: 16px; }
.columns section { break-inside: avoid; }
.facts li, .fills li { margin-bottom: 8px; }
.facts li { padding-left: 18px; text-indent: -18px; }
.facts li::before, td:first-child::before { content: "\25cf\a0"; color: var(--soft); }
.facts .good::before, .good td:first-child::before { color: var(--good); }
.facts .bad::before, .bad td:first-child::before { content: "\25b2\a0"; color: var(--bad); }
.bad td, .fills .bad { color: var(--bad); }
.figure { float: right; color: var(--soft); font-variant-numeric: tabular-nums; }
.bar { clear: both; height: 8px; background: var(--line); border-radius: 4px; overflow: hidden; }
.bar i { display: block; height: 100%; background: var(--chart); }
.bar .high { background: var(--warn); }
.bar .full { background: var(--bad); }
figure + figure { margin-top: 14px; }
figcaption span { float: right; color: var(--soft); }
svg { display: block; width: 100%; height: 84px; margin-top: 4px; border-bottom: 1px solid var(--line); }
polygon { fill: var(--chart); opacity: .18; }
polyline { fill: none; stroke: var(--chart); stroke-width: 2; vector-effect: non-scaling-stroke; }
.axis { display: flex; justify-content: space-between; color: var(--soft); font-size: 12px; }
.workers { overflow-wrap: normal; }
.workers th, .workers td { white-space: nowrap; }
.workers td:first-child { white-space: normal; overflow-wrap: anywhere; min-width: 9.5em; }
.workers td:nth-child(3) { white-space: normal; min-width: 5.5em; }
.workers td:nth-child(5) { white-space: normal; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; vertical-align: top; padding: 3px 10px 3px 0; font-variant-numeric: tabular-nums; }
th { color: var(--soft); font-weight: normal; }
td:first-child { white-space: nowrap; }
footer { display: flex; flex-wrap: wrap; gap: 4px 20px; justify-content: space-between; color: var(--soft);
  font-size: 13px; margin-top: 16px; overflow-wrap: anywhere; }
a { color: var(--chart); }
@media (max-width: 760px) { main { padding: 10px; } .columns { columns: 1; }
  header, section, .problems { margin-bottom: 10px; }
  .workers tr { display: block; padding: 4px 0; }
  .workers th { display: none; }
  .workers td { display: inline-block; }
  .workers td:first-child { display: block; }
  .workers td:nth-child(2)::before { content: "pid "; }
  .workers td:nth-child(4)::before { content: "restarts "; }
  .workers td:nth-child(5)::before { content: "since "; } }
)";

} // namespace kessctl
