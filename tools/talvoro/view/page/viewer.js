// The viewer's page: one card per camera with its live images, readings, controls, snapshots and
// 3D view, fed by one live stream from the server (see ViewServer.h for the messages).
'use strict';

const token = new URLSearchParams(location.search).get('token') || '';
const cards = new Map();  // serial -> CameraCard
const decoder = new TextDecoder();

function apiUrl(path, params = {}) {
  const url = new URL(path, location.origin);
  url.searchParams.set('token', token);
  for (const [key, value] of Object.entries(params)) url.searchParams.set(key, value);
  return url.toString();
}

async function checked(response) {
  if (response.ok) return response;
  let message = response.statusText;
  try {
    message = (await response.json()).error || message;
  } catch (e) {
    // not JSON: keep the status text
  }
  const error = new Error(message);
  error.status = response.status;
  throw error;
}

async function getJson(path, params) {
  return (await checked(await fetch(apiUrl(path, params)))).json();
}

async function postJson(path, body) {
  const response = await fetch(apiUrl(path), {
    method: 'POST',
    headers: {'Content-Type': 'application/json'},
    body: JSON.stringify(body),
  });
  return (await checked(response)).json();
}

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const cameraPath = (serial, rest) => `/api/cameras/${encodeURIComponent(serial)}/${rest}`;

function setConnection(text) {
  document.getElementById('connection').textContent = text;
}

function download(serial, file) {
  const link = document.createElement('a');
  link.href = apiUrl(cameraPath(serial, 'snapshot/' + file));
  link.download = '';
  document.body.appendChild(link);
  link.click();
  link.remove();
}

// One image panel: draws the newest JPEG it gets, skipping those that arrive while it decodes.
class Panel {
  constructor(figure) {
    this.figure = figure;
    this.canvas = figure.querySelector('canvas');
    this.absent = figure.querySelector('.absent');
    this.busy = false;
    this.next = null;
  }

  show(meta, bytes) {
    if (!bytes) {
      this.next = null;
      this.figure.classList.add('empty');
      return;
    }
    this.next = {meta, blob: new Blob([bytes], {type: 'image/jpeg'})};
    if (!this.busy) this.drawNext();
  }

  async drawNext() {
    this.busy = true;
    while (this.next) {
      const {meta, blob} = this.next;
      this.next = null;
      try {
        const bitmap = await createImageBitmap(blob);
        if (this.canvas.width !== bitmap.width) this.canvas.width = bitmap.width;
        if (this.canvas.height !== bitmap.height) this.canvas.height = bitmap.height;
        this.canvas.getContext('2d').drawImage(bitmap, 0, 0);
        bitmap.close();
        this.figure.classList.remove('empty');
        this.figure.dataset.frame = meta.frame;
      } catch (e) {
        // A broken image is skipped; the next one will do.
      }
    }
    this.busy = false;
  }

  // The image pixel under a mouse event.
  pixelAt(event) {
    const rect = this.canvas.getBoundingClientRect();
    // object-fit: contain leaves bars around an image of another aspect ratio.
    const scale = Math.min(rect.width / this.canvas.width, rect.height / this.canvas.height);
    const left = (rect.width - this.canvas.width * scale) / 2;
    const top = (rect.height - this.canvas.height * scale) / 2;
    const x = Math.floor((event.clientX - rect.left - left) / scale);
    const y = Math.floor((event.clientY - rect.top - top) / scale);
    if (x < 0 || y < 0 || x >= this.canvas.width || y >= this.canvas.height) return null;
    return {x, y};
  }
}

class CameraCard {
  constructor(serial) {
    this.serial = serial;
    this.status = {};
    const template = document.getElementById('camera-template');
    this.root = template.content.firstElementChild.cloneNode(true);
    this.root.dataset.serial = serial;
    this.root.querySelector('.serial').textContent = serial;
    document.getElementById('cameras').appendChild(this.root);
    document.getElementById('no-cameras').hidden = true;

    this.panels = {};
    for (const figure of this.root.querySelectorAll('.panel'))
      this.panels[figure.dataset.image] = new Panel(figure);
    for (const button of this.root.querySelectorAll('button.png'))
      button.addEventListener('click', () => download(serial, button.dataset.file));
    this.root.querySelector('.ply').addEventListener('click', () => download(serial, 'cloud.ply'));
    this.root.querySelector('.pause').addEventListener('click', () => this.togglePause());
    this.root.querySelector('.show-3d').addEventListener('click', () => this.toggle3d());
    this.root.querySelector('.refresh-3d').addEventListener('click', () => this.load3d());

    this.hoverBusy = false;
    this.hoverNext = null;
    for (const name of ['depth', 'ir']) {
      const panel = this.panels[name];
      panel.canvas.addEventListener('mousemove', (e) => this.hover(name, e));
    }

    this.controls = new ControlPanel(this, this.root.querySelector('.controls'));
  }

  updateStatus(status) {
    this.status = status;
    const q = (selector) => this.root.querySelector(selector);
    const state = q('.state');
    state.textContent = status.state;
    state.className = 'state ' + status.state;
    this.root.classList.toggle('disconnected', status.state !== 'live' && status.state !== 'paused');
    const live = status.mode !== undefined;
    q('.mode').textContent = live ? `data mode ${status.mode} (${status.modeDescription})` : '';
    q('.rate').textContent = live ? `${status.fps} fps` : '';
    q('.counter').textContent = live
      ? `frame ${status.frames}` + (status.dropped ? `, ${status.dropped} dropped` : '')
      : '';
    q('.message').textContent = status.message || '';
    q('.pause').textContent = status.state === 'paused' ? 'Resume' : 'Pause';
    for (const button of this.root.querySelectorAll('.actions button, figcaption button'))
      button.disabled = !live;
    if (live) {
      for (const [name, panel] of Object.entries(this.panels)) {
        const has = status.images[name];
        panel.absent.textContent = has ? 'waiting for images' : `no ${name} image in data mode ${status.mode}`;
        if (!has) panel.figure.classList.add('empty');
      }
    } else {
      for (const panel of Object.values(this.panels)) panel.absent.textContent = status.state;
    }
    this.showTelemetry(status);
  }

  showTelemetry(status) {
    const parts = [];
    if (status.temperatures)
      parts.push(`temperature (raw): base ${status.temperatures.base}, laser ${status.temperatures.laser}`);
    if (status.imu) {
      const f = (v) => v.map((x) => x.toFixed(1)).join(', ');
      parts.push(`IMU: acceleration (${f(status.imu.acc)}) mg, rotation (${f(status.imu.gyro)}) °/s`);
    }
    this.root.querySelector('.telemetry').textContent = parts.join(' · ');
  }

  async togglePause() {
    try {
      await postJson(cameraPath(this.serial, 'pause'), {paused: this.status.state !== 'paused'});
    } catch (e) {
      this.root.querySelector('.message').textContent = e.message;
    }
  }

  // Asks for the depth and point of the pixel under the mouse, one request at a time.
  async hover(panelName, event) {
    const at = this.panels[panelName].pixelAt(event);
    if (!at) return;
    // The IR image shares the depth image's pixels unless depth is mapped onto colour.
    const depth = this.panels.depth.canvas;
    const ir = this.panels.ir.canvas;
    if (panelName === 'ir' && (ir.width !== depth.width || ir.height !== depth.height)) return;
    this.hoverNext = at;
    if (this.hoverBusy) return;
    this.hoverBusy = true;
    const out = this.root.querySelector('.hover');
    while (this.hoverNext) {
      const {x, y} = this.hoverNext;
      this.hoverNext = null;
      try {
        const p = await getJson(cameraPath(this.serial, 'pixel'), {x, y});
        let text = `pixel (${p.x}, ${p.y}): `;
        text += p.depth ? `depth ${p.depth} mm` : 'no depth';
        if (p.point) {
          const [px, py, pz] = p.point.map((v) => v.toFixed(3));
          text += ` · point (${px}, ${py}, ${pz}) m in the ${p.pointFrame} camera's frame`;
        } else if (p.pointError) {
          text += ` · ${p.pointError}`;
        }
        out.textContent = text;
        out.dataset.depth = p.depth;
        out.dataset.x = p.x;
        out.dataset.y = p.y;
        out.dataset.frame = p.frame;
      } catch (e) {
        out.textContent = e.message;
      }
    }
    this.hoverBusy = false;
  }

  toggle3d() {
    const box = this.root.querySelector('.view3d');
    box.hidden = !box.hidden;
    if (!box.hidden) this.load3d();
  }

  async load3d() {
    const canvas = this.root.querySelector('canvas.cloud');
    const note = this.root.querySelector('.cloud-note');
    if (!this.cloudView) {
      try {
        this.cloudView = new CloudView(canvas);
      } catch (e) {
        note.textContent = e.message;
        return;
      }
    }
    const pixels = (this.panels.depth.canvas.width || 640) * (this.panels.depth.canvas.height || 480);
    const step = Math.max(1, Math.round(Math.sqrt(pixels / 320000)));
    note.textContent = 'loading…';
    try {
      const response = await checked(await fetch(apiUrl(cameraPath(this.serial, 'cloud'), {step})));
      const data = await response.arrayBuffer();
      const [count, flags] = new Uint32Array(data, 0, 2);
      const xyz = new Float32Array(data, 8, count * 3);
      const rgb = flags & 1 ? new Uint8Array(data, 8 + count * 12, count * 3) : null;
      this.cloudView.setPoints(xyz, rgb);
      note.textContent = `${count} points`;
    } catch (e) {
      note.textContent = e.message;
    }
  }
}

// The controls panel, built from the server's list of controls and read again after each change
// (a change of data mode or range changes what the others allow).
class ControlPanel {
  constructor(card, details) {
    this.card = card;
    this.details = details;
    this.list = details.querySelector('.control-list');
    this.error = details.querySelector('.control-error');
    details.addEventListener('toggle', () => {
      if (details.open) this.load();
    });
  }

  async load() {
    try {
      const controls = await getJson(cameraPath(this.card.serial, 'controls'));
      this.render(controls);
    } catch (e) {
      this.error.textContent = e.message;
    }
  }

  render(controls) {
    this.list.replaceChildren();
    let group = null;
    for (const control of controls) {
      if (control.group !== group) {
        group = control.group;
        const heading = document.createElement('h3');
        heading.textContent = group === 'processing' ? 'Processing (in the viewer)' : 'Camera';
        this.list.appendChild(heading);
      }
      this.list.appendChild(this.row(control));
    }
    this.details.dataset.loaded = Date.now();
  }

  row(control) {
    const row = document.createElement('div');
    row.className = 'control';
    row.dataset.name = control.name;
    row.title = control.description;
    const name = document.createElement('span');
    name.className = 'name';
    name.textContent = control.name;
    row.appendChild(name);

    const fields = control.setFields || control.fields;
    const sameShape = !control.setFields;
    const inputs = [];
    if (control.writable) {
      fields.forEach((field, i) => {
        const current = sameShape && control.values ? control.values[i] : field.default;
        const input = this.input(field, current);
        inputs.push(input);
        row.appendChild(input);
      });
      const apply = () => this.apply(control.name, inputs.map((input) => input.value));
      // One value takes effect when it changes; several, or none, with a button.
      if (inputs.length === 1 && control.readable) {
        inputs[0].addEventListener('change', apply);
      } else {
        const button = document.createElement('button');
        button.textContent = inputs.length ? 'Set' : 'Do';
        button.addEventListener('click', apply);
        row.appendChild(button);
      }
    }
    const note = document.createElement('span');
    note.className = 'note';
    if (control.error) {
      note.textContent = control.error;
      row.classList.add('unavailable');
    } else if (control.values && (!control.writable || !sameShape)) {
      note.textContent = control.text;
    }
    row.appendChild(note);
    return row;
  }

  input(field, current) {
    let input;
    if (field.choices) {
      input = document.createElement('select');
      for (const choice of field.choices) {
        const option = document.createElement('option');
        option.value = choice.name;
        option.textContent = choice.name;
        if (choice.value === current) option.selected = true;
        input.appendChild(option);
      }
    } else {
      input = document.createElement('input');
      input.type = 'number';
      if (field.min !== undefined) input.min = field.min;
      if (field.max !== undefined) input.max = field.max;
      if (field.step) input.step = field.step;
      if (current !== undefined) input.value = current;
    }
    input.dataset.field = field.name;
    input.title = field.name;
    return input;
  }

  async apply(name, values) {
    this.error.textContent = '';
    try {
      await postJson(cameraPath(this.card.serial, 'controls/' + encodeURIComponent(name)), {values});
    } catch (e) {
      this.error.textContent = e.message;
    }
    await this.load();
  }
}

function cardFor(serial) {
  let card = cards.get(serial);
  if (!card) {
    card = new CameraCard(serial);
    cards.set(serial, card);
  }
  return card;
}

// Reads the live stream's messages: a line of JSON, then its bytes.
async function readLive(reader) {
  let buffer = new Uint8Array(0);
  let header = null;
  for (;;) {
    const {value, done} = await reader.read();
    if (done) return;
    const joined = new Uint8Array(buffer.length + value.length);
    joined.set(buffer);
    joined.set(value, buffer.length);
    buffer = joined;
    let start = 0;
    for (;;) {
      if (!header) {
        const end = buffer.indexOf(10, start);
        if (end < 0) break;
        header = JSON.parse(decoder.decode(buffer.subarray(start, end)));
        start = end + 1;
      }
      const bytes = header.bytes || 0;
      if (buffer.length - start < bytes) break;
      const payload = buffer.slice(start, start + bytes);
      start += bytes;
      handle(header, payload);
      header = null;
    }
    buffer = buffer.slice(start);
  }
}

function handle(message, payload) {
  if (message.type === 'status') {
    cardFor(message.camera).updateStatus(message.status);
  } else if (message.type === 'image') {
    cardFor(message.camera).panels[message.image].show(message, payload.length ? payload : null);
  }
}

async function live() {
  for (;;) {
    let response;
    try {
      response = await checked(await fetch(apiUrl('/api/live')));
    } catch (e) {
      setConnection(e.status ? e.message : 'the viewer is not reachable');
      await sleep(e.status === 503 ? 5000 : 1000);
      continue;
    }
    setConnection('connected');
    try {
      await readLive(response.body.getReader());
    } catch (e) {
      // the connection broke: reconnect
    }
    setConnection('connection lost: reconnecting…');
    await sleep(1000);
  }
}

async function start() {
  try {
    const list = await getJson('/api/cameras');
    for (const status of list.cameras) cardFor(status.serial).updateStatus(status);
    document.getElementById('no-cameras').hidden = list.cameras.length > 0;
  } catch (e) {
    setConnection(e.message);
    if (e.status === 403) return;
  }
  live();
}

start();
