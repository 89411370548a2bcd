// The live room page: joins the room over one websocket, sends the microphone
// as 10 ms mono blocks, plays back this participant's binaural mix, and draws
// the room as the server reports it.
//
// The page never shows what it merely asked for: seats and control states are
// drawn from the server's `room` messages, which carry what the engine holds.
'use strict';

(() => {
  const SAMPLE_RATE = 48000;
  const BLOCK_FRAMES = 480;                    // 10 ms at 48 kHz
  const MIX_FLOATS = BLOCK_FRAMES * 2;         // stereo, interleaved
  const MAX_RECORD_SECONDS = 20;
  // Above this much unsent microphone audio (about 340 ms) the socket is not
  // keeping up; sending more would only add delay, so blocks are dropped.
  const MAX_SOCKET_BACKLOG_BYTES = 64 * 1024;
  const LEVEL_FLOOR_DB = -60;
  const LEVEL_STALE_MS = 1000;                 // levels come ~10 times a second
  const PENDING_CONTROL_MS = 2000;

  const $ = (id) => document.getElementById(id);
  const ui = {
    form: $('join-form'), name: $('name'), join: $('join'), status: $('status'),
    error: $('error'), canvas: $('room'), caption: $('layout-caption'),
    people: $('people'), controls: $('controls'), gain: $('ctl-gain'),
    gainValue: $('ctl-gain-value'), measure: $('measure'), latency: $('latency'),
    playbackStats: $('playback-stats'),
  };
  const controlInputs = Array.from(ui.controls.querySelectorAll('[data-control]'));

  // Everything about the current connection; reset by teardown().
  let s = fresh();
  function fresh() {
    return {
      joining: null,        // Promise of join(), while joining or joined
      ctx: null, stream: null, capture: null, playback: null, ws: null,
      welcome: null, room: null, me: null,
      levels: {}, levelsAt: 0,
      received: 0, underruns: 0, dropped: 0, bufferedFrames: 0,
      latency: null,
      recordingWaiters: [],
      pendingTimer: 0,
      gainDragging: false,
    };
  }

  // ---------------------------------------------------------------- joining

  function join(name) {
    if (s.joining) return s.joining;
    name = String(name || ui.name.value || 'Guest').trim() || 'Guest';
    ui.name.value = name;
    clearError();
    setStatus('Joining…');
    ui.join.disabled = true;
    // startAudio creates the AudioContext before its first await, so a click
    // handler calling join() still counts as the user gesture audio needs.
    const attempt = startAudio().then(() => connect(name));
    s.joining = attempt;
    attempt.catch((err) => {
      if (s.joining !== attempt) return;
      teardown();
      showError(err.message || String(err));
      setStatus('Not connected.');
    });
    return attempt;
  }

  async function startAudio() {
    const ctx = new AudioContext({ sampleRate: SAMPLE_RATE, latencyHint: 'interactive' });
    s.ctx = ctx;
    if (ctx.sampleRate !== SAMPLE_RATE) {
      throw new Error(`The browser runs audio at ${ctx.sampleRate} Hz; the room needs ${SAMPLE_RATE} Hz.`);
    }
    if (!navigator.mediaDevices || !ctx.audioWorklet) {
      throw new Error('This page needs a secure context (http://localhost or https) for the microphone and audio worklets.');
    }
    // The engine cleans and levels the voice itself; the browser's own
    // processing would fight it and colour what the canceller sees.
    s.stream = await navigator.mediaDevices.getUserMedia({
      audio: { echoCancellation: false, noiseSuppression: false, autoGainControl: false, channelCount: 1 },
    });
    await Promise.all([
      ctx.audioWorklet.addModule('capture-worklet.js'),
      ctx.audioWorklet.addModule('playback-worklet.js'),
    ]);

    const source = ctx.createMediaStreamSource(s.stream);
    s.capture = new AudioWorkletNode(ctx, 'capture-processor', {
      numberOfInputs: 1, numberOfOutputs: 1, outputChannelCount: [1],
      channelCount: 1, channelCountMode: 'explicit', channelInterpretation: 'speakers',
    });
    source.connect(s.capture);
    // The capture node writes nothing to its output; it is connected to the
    // destination only so that the graph keeps pulling (running) it.
    s.capture.connect(ctx.destination);
    s.capture.port.onmessage = (e) => sendMicBlock(e.data);  // drops all until welcome

    const playback = new AudioWorkletNode(ctx, 'playback-processor', {
      numberOfInputs: 0, numberOfOutputs: 1, outputChannelCount: [2],
    });
    s.playback = playback;
    playback.connect(ctx.destination);
    playback.port.onmessage = (e) => { if (s.playback === playback) onPlaybackMessage(e.data); };

    await ctx.resume();
  }

  function connect(name) {
    return new Promise((resolve, reject) => {
      const scheme = location.protocol === 'https:' ? 'wss' : 'ws';
      const ws = new WebSocket(`${scheme}://${location.host}/ws`);
      ws.binaryType = 'arraybuffer';
      s.ws = ws;
      let welcomed = false;
      ws.onopen = () => sendJson({ type: 'hello', name });
      ws.onmessage = (e) => {
        if (s.ws !== ws) return;   // a socket we already left
        if (typeof e.data !== 'string') { onMix(e.data); return; }
        let msg;
        try { msg = JSON.parse(e.data); } catch { console.warn('Unreadable message', e.data); return; }
        if (msg.type === 'welcome') {
          const problem = checkWelcome(msg);
          if (problem) { reject(new Error(problem)); return; }
          welcomed = true;
          onWelcome(msg);
          resolve(msg);
        } else if (msg.type === 'error' && !welcomed) {
          reject(new Error(`Server: ${msg.message}`));
        } else {
          onMessage(msg);
        }
      };
      ws.onclose = (e) => {
        if (s.ws !== ws) return;
        if (!welcomed) {
          reject(new Error(`The connection closed before the room welcomed us (code ${e.code}).`));
          return;
        }
        teardown();
        setStatus(`Disconnected (code ${e.code}${e.reason ? ': ' + e.reason : ''}). Join to come back.`);
      };
    });
  }

  // The page's audio path is built for 48 kHz and 480-frame blocks; a server
  // that says otherwise would be mis-heard, so refuse rather than garble.
  function checkWelcome(msg) {
    if (msg.sample_rate !== undefined && msg.sample_rate !== SAMPLE_RATE) {
      return `The server runs at ${msg.sample_rate} Hz; this page sends and plays ${SAMPLE_RATE} Hz.`;
    }
    if (msg.block !== undefined && msg.block !== BLOCK_FRAMES) {
      return `The server uses ${msg.block}-frame blocks; this page uses ${BLOCK_FRAMES}.`;
    }
    return null;
  }

  function teardown() {
    const old = s;
    s = fresh();
    if (old.ws) { old.ws.onclose = null; old.ws.close(); }
    if (old.stream) old.stream.getTracks().forEach((t) => t.stop());
    if (old.ctx) old.ctx.close().catch(() => {});
    clearTimeout(old.pendingTimer);
    old.recordingWaiters.forEach((w) => w.reject(new Error('Disconnected while recording.')));
    ui.join.disabled = false;
    ui.measure.disabled = true;
    ui.controls.disabled = true;
    renderAll();
  }

  // ---------------------------------------------------------------- audio

  function sendMicBlock(buffer) {
    const ws = s.ws;
    if (!s.welcome || !ws || ws.readyState !== WebSocket.OPEN) return; // nothing is sent before welcome
    if (ws.bufferedAmount > MAX_SOCKET_BACKLOG_BYTES) return;
    ws.send(buffer);
  }

  function onMix(buffer) {
    if (buffer.byteLength !== MIX_FLOATS * 4) {
      console.warn(`Ignored an audio message of ${buffer.byteLength} bytes; expected ${MIX_FLOATS * 4}.`);
      return;
    }
    s.received++;
    s.playback.port.postMessage(buffer, [buffer]);
  }

  function onPlaybackMessage(msg) {
    if (msg.type === 'stats') {
      s.underruns = msg.underruns;
      s.dropped = msg.dropped;
      s.bufferedFrames = msg.bufferedFrames;
      renderPlaybackStats();
    } else if (msg.type === 'recording') {
      const waiter = s.recordingWaiters.shift();
      if (waiter) waiter.resolve(deinterleave(msg));
    }
  }

  function deinterleave({ sampleRate, buffer, length }) {
    const data = new Float32Array(buffer, 0, length);
    const frames = length / 2;
    const left = new Array(frames);
    const right = new Array(frames);
    for (let i = 0; i < frames; i++) {
      left[i] = data[2 * i];
      right[i] = data[2 * i + 1];
    }
    return { sampleRate, left, right };
  }

  function startRecording() {
    requireAudio();
    const buffer = new ArrayBuffer(MAX_RECORD_SECONDS * s.ctx.sampleRate * 2 * 4);
    s.playback.port.postMessage({ type: 'record-start', buffer }, [buffer]);
  }

  function stopRecording() {
    requireAudio();
    return new Promise((resolve, reject) => {
      s.recordingWaiters.push({ resolve, reject });
      s.playback.port.postMessage({ type: 'record-stop' });
    });
  }

  function requireAudio() {
    if (!s.playback) throw new Error('Not joined.');
  }

  // ---------------------------------------------------------------- messages

  function sendJson(msg) {
    if (!s.ws || s.ws.readyState !== WebSocket.OPEN) throw new Error('Not connected.');
    s.ws.send(JSON.stringify(msg));
  }

  function onWelcome(msg) {
    s.welcome = msg;
    s.me = msg.participant_id;
    const gain = msg.controls && msg.controls[ui.gain.dataset.control];
    if (gain) { ui.gain.min = gain.min; ui.gain.max = gain.max; }
    ui.controls.disabled = false;
    ui.measure.disabled = false;
    setStatus(`In room ${msg.room_id} as participant ${msg.participant_id}.`);
    renderAll();
  }

  function onMessage(msg) {
    switch (msg.type) {
      case 'room':
        s.room = msg;
        clearPending();
        renderAll();
        break;
      case 'levels':
        s.levels = msg.levels || {};
        s.levelsAt = performance.now();
        renderPeople();
        scheduleDraw();
        break;
      case 'latency':
        s.latency = msg;
        renderLatency();
        break;
      case 'error':
        showError(`Server: ${msg.message}`);
        clearPending();     // whatever was asked did not happen: show the engine's state again
        renderControls();
        break;
      default:
        console.warn('Unknown message type', msg.type);
    }
  }

  function moveTo(seat) {
    sendJson({ type: 'seat', seat: Number(seat) });
  }

  function setControl(name, value) {
    sendJson({ type: 'control', control: String(name), value: Number(value) });
  }

  // ---------------------------------------------------------------- controls

  function myParticipant() {
    const people = (s.room && s.room.participants) || [];
    return people.find((p) => p.you) || people.find((p) => p.id === s.me) || null;
  }

  // A control the user just changed shows the request (marked pending) until
  // the next `room` message, an error, or a timeout puts the engine's value back.
  function onControlInput(el) {
    const name = el.dataset.control;
    const value = el.type === 'checkbox' ? (el.checked ? limit(name, 'max', 1) : limit(name, 'min', 0))
                                         : Number(el.value);
    el.classList.add('pending');
    clearTimeout(s.pendingTimer);
    s.pendingTimer = setTimeout(() => { clearPending(); renderControls(); }, PENDING_CONTROL_MS);
    try { setControl(name, value); } catch (err) { showError(err.message); clearPending(); renderControls(); }
  }

  function limit(name, which, fallback) {
    const c = s.welcome && s.welcome.controls && s.welcome.controls[name];
    return c && c[which] !== undefined ? c[which] : fallback;
  }

  function clearPending() {
    clearTimeout(s.pendingTimer);
    controlInputs.forEach((el) => el.classList.remove('pending'));
  }

  function renderControls() {
    const offered = (s.welcome && s.welcome.controls) || {};
    const held = (myParticipant() || {}).controls || {};
    for (const el of controlInputs) {
      const name = el.dataset.control;
      el.disabled = !(name in offered);
      if (el.classList.contains('pending')) continue;
      let value = held[name];
      if (value === undefined && offered[name]) value = offered[name].value;
      if (value === undefined) continue;
      if (el.type === 'checkbox') {
        el.checked = value > limit(name, 'min', 0);
      } else if (el === ui.gain) {
        if (s.gainDragging) continue;
        el.value = value;
        ui.gainValue.textContent = value;
      } else {
        el.value = String(value);
      }
    }
  }

  // ---------------------------------------------------------------- side panel

  function levelOf(id) {
    if (performance.now() - s.levelsAt > LEVEL_STALE_MS) return null;
    return s.levels[String(id)] || null;
  }

  function levelFraction(level) {
    if (!level || typeof level.level !== 'number') return 0;
    return Math.max(0, Math.min(1, (level.level - LEVEL_FLOOR_DB) / -LEVEL_FLOOR_DB));
  }

  function renderPeople() {
    const people = (s.room && s.room.participants) || [];
    ui.people.replaceChildren(...people.map((p) => {
      const li = document.createElement('li');
      const level = levelOf(p.id);
      li.className = [p.you || p.id === s.me ? 'you' : '', level && level.talking ? 'talking' : ''].join(' ').trim();
      li.dataset.id = p.id;
      const name = document.createElement('span');
      name.className = 'who';
      name.textContent = `${p.name}${p.bot ? ' (bot)' : ''}${p.you || p.id === s.me ? ' (you)' : ''} · seat ${p.seat}`;
      const meter = document.createElement('span');
      meter.className = 'meter';
      const bar = document.createElement('span');
      bar.style.width = `${Math.round(levelFraction(level) * 100)}%`;
      meter.append(bar);
      const db = document.createElement('span');
      db.className = 'db';
      db.textContent = level && typeof level.level === 'number' ? `${level.level.toFixed(1)} dB` : '';
      li.append(name, meter, db);
      return li;
    }));
  }

  function renderLatency() {
    const rows = [];
    const ms = (v) => (typeof v === 'number' && isFinite(v) ? `${v.toFixed(1)} ms` : 'n/a');
    let total = 0;
    if (s.latency) {
      const server = Number(s.latency.milliseconds) || 0;
      total += server;
      rows.push(['Server measured', ms(server), 'total']);
      for (const [part, value] of Object.entries(s.latency.parts || {})) rows.push([`  ${part.replace(/_/g, ' ')}`, ms(value), 'part']);
      // What the server cannot see: this browser's own output path.
      const ctx = s.ctx;
      const output = ctx && typeof ctx.outputLatency === 'number' ? ctx.outputLatency * 1000 : undefined;
      const base = ctx && typeof ctx.baseLatency === 'number' ? ctx.baseLatency * 1000 : undefined;
      const buffer = ctx ? (s.bufferedFrames / ctx.sampleRate) * 1000 : undefined;
      // A microphone sample waits for the rest of its 480-sample block
      // before it is sent: 10 ms for the block's first sample.
      const capture = 1000 * 480 / SAMPLE_RATE;
      for (const [label, v] of [['Page capture block', capture], ['Page playback buffer', buffer], ['Audio output latency', output], ['Audio base latency', base]]) {
        rows.push([label, ms(v), 'page']);
        if (typeof v === 'number' && isFinite(v)) total += v;
      }
      rows.push(['Mouth to ear', ms(total), 'sum']);
    } else if (s.welcome) {
      rows.push(['Press “Measure latency”', '', 'part']);
    }
    ui.latency.replaceChildren(...rows.map(([label, value, cls]) => {
      const tr = document.createElement('tr');
      tr.className = cls;
      const th = document.createElement('th');
      th.textContent = label;
      const td = document.createElement('td');
      td.textContent = value;
      tr.append(th, td);
      return tr;
    }));
  }

  function renderPlaybackStats() {
    if (!s.ctx) { ui.playbackStats.textContent = ''; return; }
    const bufferMs = (s.bufferedFrames / s.ctx.sampleRate) * 1000;
    ui.playbackStats.textContent =
      `Blocks received ${s.received} · buffered ${bufferMs.toFixed(0)} ms · underruns ${s.underruns} · dropped ${s.dropped}`;
  }

  // ---------------------------------------------------------------- room view

  let drawQueued = false;
  let seatSpots = [];   // on-screen seats from the last draw, for clicks

  function scheduleDraw() {
    if (drawQueued) return;
    drawQueued = true;
    requestAnimationFrame(() => { drawQueued = false; drawRoom(); });
  }

  function drawRoom() {
    const canvas = ui.canvas;
    const dpr = window.devicePixelRatio || 1;
    const w = canvas.clientWidth;
    const h = canvas.clientHeight;
    if (canvas.width !== Math.round(w * dpr) || canvas.height !== Math.round(h * dpr)) {
      canvas.width = Math.round(w * dpr);
      canvas.height = Math.round(h * dpr);
    }
    const g = canvas.getContext('2d');
    g.setTransform(dpr, 0, 0, dpr, 0, 0);
    g.clearRect(0, 0, w, h);
    const css = getComputedStyle(canvas);
    const color = (name) => css.getPropertyValue(name).trim();
    seatSpots = [];

    const layout = s.room && s.room.layout;
    const seats = (layout && layout.seats) || [];
    const people = (s.room && s.room.participants) || [];
    g.font = '13px system-ui, sans-serif';
    g.textAlign = 'center';
    g.textBaseline = 'middle';
    if (!s.room) {
      g.fillStyle = color('--muted');
      g.fillText(s.welcome ? 'Waiting for the room…' : 'Join to see the room.', w / 2, h / 2);
      return;
    }

    // Fit every seat and person into the canvas, keeping the layout's
    // proportions. x is to the right; z is forward, away from the front, so
    // +z is drawn upwards and the layout's front is the bottom edge.
    const points = seats.map((p) => [p.x, p.z]).concat(people.map((p) => [p.x, p.z]));
    if (points.length === 0) points.push([0, 0]);
    const xs = points.map((p) => p[0]);
    const zs = points.map((p) => p[1]);
    const minX = Math.min(...xs), maxX = Math.max(...xs), minZ = Math.min(...zs), maxZ = Math.max(...zs);
    // The margin leaves room for heading ticks, names under seats and meters;
    // the strip at the bottom holds the "front" marker.
    const margin = 60, strip = 24;
    const spanX = Math.max(maxX - minX, 200), spanZ = Math.max(maxZ - minZ, 200);
    const scale = Math.min((w - 2 * margin) / spanX, (h - 2 * margin - strip) / spanZ);
    const cx = (minX + maxX) / 2, cz = (minZ + maxZ) / 2;
    const toScreen = (x, z) => [w / 2 + (x - cx) * scale, (h - strip) / 2 - (z - cz) * scale];
    const radius = Math.max(10, Math.min(22, 40 * scale));   // about a 0.4 m seat

    g.strokeStyle = color('--seat-edge');
    g.setLineDash([4, 4]);
    g.beginPath();
    g.moveTo(margin / 2, h - strip);
    g.lineTo(w - margin / 2, h - strip);
    g.stroke();
    g.setLineDash([]);
    g.fillStyle = color('--muted');
    g.fillText('front of the room', w / 2, h - strip / 2);

    const bySeat = new Map(people.map((p) => [p.seat, p]));
    for (const seat of seats) {
      const [sx, sy] = toScreen(seat.x, seat.z);
      seatSpots.push({ seat: seat.seat, sx, sy, r: radius, free: !bySeat.has(seat.seat) });
      if (bySeat.has(seat.seat)) continue;   // drawn with its participant below
      drawSeat(g, color, sx, sy, radius, seat.azimuth, 'free');
      g.fillStyle = color('--muted');
      g.fillText(String(seat.seat), sx, sy);
    }
    for (const p of people) {
      const [sx, sy] = toScreen(p.x, p.z);
      const level = levelOf(p.id);
      const mine = p.you || p.id === s.me;
      drawSeat(g, color, sx, sy, radius, p.azimuth, level && level.talking ? 'talking' : 'taken', mine);
      g.fillStyle = color('--ink');
      g.fillText(String(p.seat), sx, sy);
      g.fillText(p.name + (p.bot ? ' (bot)' : ''), sx, sy + radius + 12);
      // Level meter: a bar to the right of the seat, floor at -60 dBFS.
      const bh = radius * 2, bx = sx + radius + 5, by = sy - radius;
      g.fillStyle = color('--meter-bg');
      g.fillRect(bx, by, 5, bh);
      const f = levelFraction(level);
      g.fillStyle = color(level && level.talking ? '--talk' : '--meter');
      g.fillRect(bx, by + bh * (1 - f), 5, bh * f);
    }
  }

  function drawSeat(g, color, x, y, r, azimuth, kind, mine) {
    // Azimuth is clockwise seen from above, 0 facing +z (up on screen).
    const a = ((Number(azimuth) || 0) * Math.PI) / 180;
    g.strokeStyle = color('--muted');
    g.lineWidth = 2;
    g.beginPath();
    g.moveTo(x + Math.sin(a) * r, y - Math.cos(a) * r);
    g.lineTo(x + Math.sin(a) * r * 1.6, y - Math.cos(a) * r * 1.6);
    g.stroke();
    g.beginPath();
    g.arc(x, y, r, 0, 2 * Math.PI);
    g.fillStyle = color(kind === 'talking' ? '--talk' : kind === 'taken' ? '--seat-taken' : '--seat-free');
    g.fill();
    g.lineWidth = mine ? 4 : 1.5;
    g.strokeStyle = color(mine ? '--me' : '--seat-edge');
    g.stroke();
  }

  function seatAt(event) {
    const rect = ui.canvas.getBoundingClientRect();
    const x = event.clientX - rect.left, y = event.clientY - rect.top;
    return seatSpots.find((spot) => Math.hypot(spot.sx - x, spot.sy - y) <= spot.r + 3) || null;
  }

  ui.canvas.addEventListener('click', (event) => {
    const spot = seatAt(event);
    if (!spot || !s.welcome) return;
    if (!spot.free) return;   // occupied, possibly by us: nothing to do
    try { moveTo(spot.seat); } catch (err) { showError(err.message); }
  });
  ui.canvas.addEventListener('mousemove', (event) => {
    const spot = seatAt(event);
    ui.canvas.style.cursor = spot && spot.free && s.welcome ? 'pointer' : '';
  });
  new ResizeObserver(scheduleDraw).observe(ui.canvas);
  // If levels stop coming (server quiet, socket stalled) the meters must not
  // freeze on the last reading.
  setInterval(() => {
    if (s.levelsAt && performance.now() - s.levelsAt > LEVEL_STALE_MS) {
      s.levels = {};
      s.levelsAt = 0;
      renderPeople();
      scheduleDraw();
    }
  }, 500);

  // ---------------------------------------------------------------- page chrome

  function renderAll() {
    const layout = s.room && s.room.layout;
    ui.caption.textContent = layout ? `Layout ${layout.id}${layout.description ? ': ' + layout.description : ''}` : '';
    renderControls();
    renderPeople();
    renderLatency();
    renderPlaybackStats();
    scheduleDraw();
  }

  function setStatus(text) { ui.status.textContent = text; }
  function showError(text) { ui.error.textContent = text; ui.error.hidden = false; }
  function clearError() { ui.error.textContent = ''; ui.error.hidden = true; }

  ui.form.addEventListener('submit', (event) => {
    event.preventDefault();
    join(ui.name.value).catch(() => {});   // join() shows its own errors
  });
  for (const el of controlInputs) {
    if (el === ui.gain) continue;
    el.addEventListener('change', () => onControlInput(el));
  }
  ui.gain.addEventListener('input', () => { s.gainDragging = true; ui.gainValue.textContent = ui.gain.value; });
  ui.gain.addEventListener('change', () => { s.gainDragging = false; onControlInput(ui.gain); });
  ui.measure.addEventListener('click', () => {
    try {
      sendJson({ type: 'latency_probe' });
      s.latency = null;
      ui.latency.replaceChildren();
      const tr = document.createElement('tr');
      tr.innerHTML = '<th>Measuring…</th><td></td>';
      ui.latency.append(tr);
    } catch (err) { showError(err.message); }
  });

  // Hooks for the end-to-end test (and the console). Kept to what the page
  // already does for a person; nothing here bypasses the server.
  window.liveRoom = {
    join,
    moveTo,
    setControl,
    startRecording,
    stopRecording,
    get state() { return s.room; },
    get me() { return s.me; },
    get received() { return s.received; },
    get underruns() { return s.underruns; },
  };

  renderAll();
})();
