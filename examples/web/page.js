// SPDX-License-Identifier: MIT
"use strict";
// Shows the camera and keeps what it shows up to date. What comes from the camera becomes text, never markup,
// and an entry that is not what it should be is left out, so that it does not stop the rest.

const kPause = 3000;      // milliseconds between two rounds of questions
const kTimeout = 10000;   // for one answer
const kKeptAlerts = 8;    // rows of the table
const kDrawnAlerts = 2;   // zones and tracks in the picture
const kNames = {
  security: "Security", network: "Network", viewers: "Viewers", ptz: "PTZ head", audio: "Audio line-out",
  registration: "Registration", services: "Directory of services",
};
const kUnits = {
  security: "zarip-security", network: "zarip-networking", viewers: "zarip-streaminfo", ptz: "zarip-ptz",
  audio: "zarip-audio", registration: "zarip-registration", services: "zarip-directory",
};

const $ = selector => document.querySelector(selector);
const asList = value => Array.isArray(value) ? value : [];
const asObject = value => value !== null && typeof value === "object" ? value : {};
const asTime = value => {
  const time = new Date(String(value));
  if (Number.isNaN(time.getTime())) return String(value);
  const isToday = time.toDateString() === new Date().toDateString();
  return isToday ? time.toLocaleTimeString() : time.toLocaleString();
};

let user = null;       // the user that is logged in
let trouble = "";      // why there are no answers
let seenChanges = "";  // of the user list, when it was fetched
let latestAlert = 0;   // the number of the last one that is shown
let alerts = [];       // the newest first

class Refusal extends Error {
  constructor(code, message) {
    super(message);
    this.code = code;
  }
}

// Returns the answer. Throws a Refusal, with code 0 if there is no answer at all.
async function ask(method, path, form) {
  let response, answer;
  try {
    response = await fetch(path, {
      method,
      // As a form sends it: the gateway reads no form with a charset in its type, which fetch would add.
      headers: form ? {"Content-Type": "application/x-www-form-urlencoded"} : {},
      body: form ? new URLSearchParams(form).toString() : undefined,
      signal: AbortSignal.timeout(kTimeout),
    });
    answer = await response.json();
  } catch {
    throw new Refusal(0, response ? "The camera gives answers that the page does not understand. Please reload the page."
      : "The camera does not answer. Check its power and the network; the page tries again by itself.");
  }
  if (!response.ok) throw new Refusal(response.status, String(asObject(answer).error || `Error ${response.status}.`));
  return answer;
}

// Gives a table the rows of a list without replacing those that stay, so that focus and selection do, too.
// `cells` returns the cells of an item: texts or elements; one that throws leaves the item out.
function fill(table, items, key, cells) {
  const labels = [...table.tHead.rows[0].cells].map(cell => cell.textContent);
  const body = table.tBodies[0];
  const old = new Map([...body.rows].map(row => [row.dataset.key, row]));
  const rows = [];
  for (const item of items) {
    try {
      const name = JSON.stringify(key(item));
      const row = old.get(name) || document.createElement("tr");
      cells(item, row).forEach((content, i) => {
        const cell = row.cells[i] || row.insertCell();
        cell.dataset.label = labels[i];
        if (content instanceof Element ? !cell.firstElementChild : cell.textContent !== content) cell.replaceChildren(content);
      });
      row.dataset.key = name;
      old.delete(name);
      rows.push(row);
    } catch (error) {
      console.debug("left out", item, error);
    }
  }
  for (const row of old.values()) row.remove();
  rows.forEach((row, i) => { if (body.rows[i] !== row) body.insertBefore(row, body.rows[i] || null); });
  const empty = table.parentElement.querySelector(".empty");
  if (empty) empty.hidden = rows.length > 0;
  table.hidden = rows.length === 0;
}

function setText(selector, text) {
  if ($(selector).textContent !== text) $(selector).textContent = text;  // else a screen reader would say it again
}

// The state ---------------------------------------------------------------------------------------------

function showState(silent, updated) {
  const names = silent.map(part => kNames[part] || String(part));
  const kind = trouble ? "bad" : names.length > 0 ? "warn" : user === null ? "" : "good";
  $("#state").className = `wide ${kind}`;
  document.body.classList.toggle("stale", trouble !== "");
  const list = new Intl.ListFormat("en").format(names);
  setText("#verdict", trouble || (user === null ? "Log in to see the camera." :
    names.length === 0 ? "All services answer." : names.length === 1 ? `${list} does not answer.` : `${list} do not answer.`));
  if (updated) setText("#updated", `Updated ${new Date(updated).toLocaleTimeString()}`);
  const advice = silent.filter(part => kUnits[part]);
  const texts = advice.map(part => `${kNames[part]}: restart the service ${kUnits[part]}, or look at its log.`);
  if (texts.join() !== [...$("#advice").children].map(item => item.textContent).join()) {
    $("#advice").replaceChildren(...texts.map(text => Object.assign(document.createElement("li"), {textContent: text})));
  }
}

// The live picture --------------------------------------------------------------------------------------

function showPicture(on) {
  const picture = $("#picture");
  if (picture.naturalWidth > 0) $("#dark").hidden = true;
  if (!on) {
    picture.removeAttribute("src");  // ends the stream
  } else if (!picture.hasAttribute("src") && !document.hidden) {
    picture.src = `/live?at=${Date.now()}`;
  }
}

// The points of a polygon or line in hundredths of the picture; throws if it is not a list of pairs.
function toPoints(list) {
  return list.map(([x, y]) => {
    if (!Number.isFinite(x) || !Number.isFinite(y)) throw new TypeError("not a point");
    return `${x * 100},${y * 100}`;
  }).join(" ");
}

function draw() {
  const shapes = [];
  if ($("#drawn").checked) {
    alerts.slice(0, kDrawnAlerts).reverse().forEach((alert, i, drawn) => {
      const isLast = i === drawn.length - 1;
      for (const [kind, element] of [["zone", "polygon"], ["track", "polyline"]]) {
        if (kind === "zone" && !isLast) continue;
        try {
          const shape = document.createElementNS("http://www.w3.org/2000/svg", element);
          shape.setAttribute("points", toPoints(alert[kind]));
          shape.setAttribute("class", isLast ? kind : `${kind} earlier`);
          shapes.push(shape);
        } catch (error) {
          console.debug("not drawn", alert, error);
        }
      }
    });
  }
  $("#drawing").replaceChildren(...shapes);
  const [last] = alerts;
  if (last) setText("#caption", `${last.rule}: ${last.description}, ${asTime(last.end)}`);
}

// The tables --------------------------------------------------------------------------------------------

function showAlerts({alerts: news, latest}) {
  if (!Number.isInteger(latest)) return;
  if (latest < latestAlert) alerts = [];  // the gateway was started again
  alerts = [...asList(news).filter(alert => Number.isInteger(asObject(alert).number)).reverse(), ...alerts].slice(0, kKeptAlerts);
  latestAlert = latest;
  fill($("#alerts table"), alerts, ({number}) => number, ({end, rule, description, severity}, row) => {
    row.className = severity >= 3 ? "severe" : "";
    return [asTime(end), String(rule), String(description)];
  });
  draw();
}

function showCamera(state) {
  const lines = Object.entries(asObject(state.network)).map(([key, value]) =>
    [key.replace(/^\[([^\]/]*)[^\]]*\]/, "$1 "), String(value)]);
  const add = (part, describe) => {
    try {
      lines.push(state[part] === null ? [kNames[part], "does not answer", true] : [kNames[part], describe(state[part])]);
    } catch {
      lines.push([kNames[part], "gives an answer that the page does not understand", true]);
    }
  };
  if (!state.network) lines.push([kNames.network, "does not answer", true]);
  add("viewers", ({now, guaranteed}) => `${Number(now)} now, ${Number(guaranteed)} guaranteed`);
  add("ptz", ({polling}) => polling ? "is polled" : "is not polled");
  add("audio", list => list.map(({client}) => client).join(", ") || "no client is connected");
  add("registration", ({registered, synced}) => (registered ? "registered" : "not registered") + (synced ? ", in step" : ""));
  fill($("#camera table"), lines, ([name]) => name, ([name, value, isSilent], row) => {
    queueMicrotask(() => row.cells[1].classList.toggle("silent", Boolean(isSilent)));
    return [name, value];
  });
  fill($("#services table"), asList(state.services), ({name}) => name, ({name, deviceType}) => [String(name), String(deviceType)]);
}

function showUsers(users) {
  fill($("#users table"), asList(users), ({name}) => name, ({name, role}) => {
    const button = document.createElement("button");
    button.className = "plain";
    button.textContent = "Delete";
    button.setAttribute("aria-label", `Delete the user ${name}`);
    button.onclick = () => deleteUser(button, name);
    return [String(name), String(role), button];
  });
  $("#users").hidden = false;
}

// What the user does ------------------------------------------------------------------------------------

// Says what came of the last thing that the user did in a form. Only the next thing there replaces it.
function report(form, text, isDone = false) {
  const outcome = form.querySelector(".outcome");
  outcome.className = isDone ? "outcome done" : "outcome";
  outcome.textContent = text;
}

// One at a time for each button. Returns the answer, or undefined after saying what went wrong.
async function act(button, form, method, path, fields) {
  report(form, "");
  button.disabled = true;
  try {
    return await ask(method, path, fields);
  } catch (refusal) {
    if (refusal.code === 401 && path !== "/login") showLogin("Your session has ended. Please log in again.");
    else report(form, refusal.message);
    return undefined;
  } finally {
    button.disabled = false;
  }
}

async function logIn(event) {
  event.preventDefault();
  const form = event.target;
  if (await act(event.submitter, form, "POST", "/login", new FormData(form))) {
    form.reset();
    await refresh();
    $("#title").focus();
  } else if (!$("#login").hidden) {
    form.elements.password.select();
  }
}

async function addUser(event) {
  event.preventDefault();
  const form = event.target;
  const name = form.elements.name.value;
  const users = await act(event.submitter, form, "POST", "/api/users", new FormData(form));
  if (!users) return;
  form.reset();
  showUsers(users);
  report(form, `The user ${name} was added.`, true);
  form.elements.name.focus();
}

async function deleteUser(button, name) {
  const dialog = $("#confirm");
  setText("#question", `Delete the user ${name}? Their sessions end.`);
  dialog.returnValue = "no";
  dialog.showModal();
  await new Promise(resolve => dialog.addEventListener("close", resolve, {once: true}));
  if (dialog.returnValue !== "yes") return;
  const row = button.closest("tr");
  const near = row.nextElementSibling || row.previousElementSibling;
  const form = $("#users form");
  const users = await act(button, form, "DELETE", "/api/users?name=" + encodeURIComponent(name));
  if (!users) {
    button.focus();
    return;
  }
  showUsers(users);
  report(form, `The user ${name} was deleted.`, true);
  (near?.isConnected ? near.querySelector("button") : form.elements.name).focus();
}

async function logOut(event) {
  event.target.disabled = true;
  try {
    await ask("POST", "/logout");
    showLogin("");
  } catch (refusal) {
    trouble = refusal.message;
    showState([]);
  } finally {
    event.target.disabled = false;
  }
}

function showLogin(reason) {
  const wasIn = user !== null;
  user = null;
  seenChanges = "";
  alerts = [];
  latestAlert = 0;
  showPicture(false);
  for (const part of document.querySelectorAll(".member, #who")) part.hidden = true;
  $("#login").hidden = false;
  setText("#updated", "");
  showState([]);
  if (reason) report($("#login form"), reason);
  if (wasIn) $("#login input").focus();
}

// Keeping up --------------------------------------------------------------------------------------------

async function refreshUsers() {
  const changes = asList(await ask("GET", "/api/events"));
  const latest = JSON.stringify(changes);
  if (latest === seenChanges) return;
  try {
    showUsers(await ask("GET", "/api/users"));
  } catch (refusal) {
    if (refusal.code !== 403) throw refusal;
    $("#users").hidden = true;  // a viewer does not manage users
  }
  seenChanges = latest;
  setText("#changes", changes.length > 0 ? `Last changed ${asTime(asObject(changes[0]).time)}.` : "");
}

async function refresh() {
  let silent = [];
  let updated;
  try {
    const session = asObject(await ask("GET", "/session"));
    trouble = "";
    if (session.camera) {
      setText("#title", String(session.camera));
      document.title = String(session.camera);
    }
    if (!session.user) {
      if ($("#login").hidden) showLogin(user !== null ? "Your session has ended. Please log in again." : "");
      showState([]);
      return;
    }
    user = session.user;
    setText("#user", `${user}, ${Math.ceil(session.secondsLeft / 60)} min left`);
    $("#login").hidden = true;
    for (const part of document.querySelectorAll("#who, .member:not(#users)")) part.hidden = false;
    const state = asObject(await ask("GET", "/api/camera"));
    silent = asList(state.silent);
    updated = state.updated;
    showCamera(state);
    showAlerts(asObject(await ask("GET", `/api/alerts?after=${latestAlert}`)));
    showPicture(true);
    await refreshUsers();
  } catch (error) {
    if (error instanceof Refusal && error.code === 401) return;  // the next round asks for a login
    if (!(error instanceof Refusal)) throw error;
    trouble = error.message;
    silent = trouble.startsWith("The security service") ? ["security"] : [];
  }
  showState(silent, updated);
}

async function watch() {
  try {
    await refresh();
  } finally {
    setTimeout(watch, kPause);
  }
}

$("#login form").addEventListener("submit", logIn);
$("#users form").addEventListener("submit", addUser);
$("#logout").addEventListener("click", logOut);
$("#drawn").addEventListener("change", draw);
$("#picture").addEventListener("error", () => {
  $("#dark").hidden = false;
  showPicture(false);  // the next round tries again
});
document.addEventListener("visibilitychange", () => showPicture(user !== null && !document.hidden));
watch();
