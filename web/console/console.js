// The console: everything it shows comes from /api/v1, live through the
// event stream; every rule (which buttons are enabled, which packages a tick
// pulls in) is the server's, sent with each router.
'use strict';
(() => {
  const $ = (id) => document.getElementById(id);
  // Script texts by MAC: the list and the event stream name a router's
  // scripts and their sizes; the texts come with the router alone.
  const state = { routers: new Map(), texts: new Map(), selected: null, packages: null, sets: [], log: [] };
  const OPTION_FLAGS = ['keepConfig', 'keepBranding', 'defaultConfig', 'configureScript', 'modeScript'];

  async function api(method, path, body) {
    // The header tells the server the request comes from this page: a page
    // elsewhere cannot send it without asking first.
    const init = { method, credentials: 'same-origin', headers: { 'X-Tarnlift': '1' } };
    if (body !== undefined) {
      init.headers['Content-Type'] = 'application/json';
      init.body = JSON.stringify(body);
    }
    const response = await fetch(path, init);
    let data = null;
    try { data = await response.json(); } catch (e) { data = null; }
    if (response.status === 401) showLogin();
    if (!response.ok) throw new Error((data && data.error) || response.statusText);
    return data;
  }

  function text(el, value) { el.textContent = value == null ? '' : String(value); }

  // ---- login ----
  function showLogin() { $('login').hidden = false; $('app').hidden = true; $('token').focus(); }
  $('login-form').addEventListener('submit', async (e) => {
    e.preventDefault();
    try {
      await api('POST', '/api/v1/session', { token: $('token').value });
      $('token').value = '';
      $('login').hidden = true; $('app').hidden = false;
      start();
    } catch (err) { text($('login-error'), err.message); }
  });

  // ---- routers ----
  function statusCell(r) {
    const span = document.createElement('span');
    span.className = 'status s' + r.statusCode;
    text(span, r.status || '-');
    return span;
  }
  function bar(r) {
    const outer = document.createElement('div');
    outer.className = 'bar' + (r.statusCode === 2 ? ' done' : r.statusCode === 3 ? ' failed' : '');
    outer.setAttribute('role', 'progressbar');
    outer.setAttribute('aria-valuemin', '0'); outer.setAttribute('aria-valuemax', '100');
    outer.setAttribute('aria-valuenow', String(r.progress));
    const inner = document.createElement('span');
    inner.style.width = r.progress + '%';
    outer.appendChild(inner);
    return outer;
  }
  function renderRouters() {
    const body = $('routers').querySelector('tbody');
    const focusedMac = document.activeElement && document.activeElement.dataset ? document.activeElement.dataset.mac : null;
    body.replaceChildren();
    const counts = {};
    for (const r of state.routers.values()) {
      counts[r.status] = (counts[r.status] || 0) + 1;
      const tr = document.createElement('tr');
      tr.dataset.mac = r.mac;
      tr.tabIndex = 0;
      tr.setAttribute('aria-selected', r.mac === state.selected ? 'true' : 'false');
      const cells = [r.label, r.kind === 'drive' ? r.label : r.mac, null, r.architecture, null];
      cells.forEach((value, i) => {
        const td = document.createElement('td');
        if (i === 1) td.className = 'mono';
        if (i === 3) td.className = 'wide';
        if (i === 2) td.appendChild(statusCell(r));
        else if (i === 4) td.appendChild(bar(r));
        else text(td, value);
        tr.appendChild(td);
      });
      tr.addEventListener('click', () => select(r.mac));
      tr.addEventListener('keydown', (e) => {
        if (e.key === 'Enter' || e.key === ' ') { e.preventDefault(); select(r.mac); }
        if (e.key === 'ArrowDown' && tr.nextElementSibling) { e.preventDefault(); tr.nextElementSibling.focus(); }
        if (e.key === 'ArrowUp' && tr.previousElementSibling) { e.preventDefault(); tr.previousElementSibling.focus(); }
      });
      body.appendChild(tr);
      if (r.mac === focusedMac) tr.focus();
    }
    $('no-routers').hidden = state.routers.size > 0;
    text($('summary'), Object.entries(counts).map(([k, v]) => v + ' ' + k).join(' · '));
  }

  function select(mac) {
    state.selected = mac;
    state.packages = null;
    renderRouters();
    renderDetail(true);
    loadPackages();
    loadTexts(mac);
  }

  function textsOf(r) {
    const known = state.texts.get(r.mac) || {};
    return {
      configureScriptText: r.options.configureScriptText !== undefined ? r.options.configureScriptText : (known.configureScriptText || ''),
      modeScriptText: r.options.modeScriptText !== undefined ? r.options.modeScriptText : (known.modeScriptText || ''),
    };
  }
  function rememberTexts(r) {
    if (r.options.configureScriptText === undefined && r.options.modeScriptText === undefined) return;
    state.texts.set(r.mac, textsOf(r));
  }
  async function loadTexts(mac) {
    try {
      const r = await api('GET', '/api/v1/routers/' + mac);
      rememberTexts(r);
      if (state.selected === mac) { state.routers.set(mac, r); renderDetail(true); }
    } catch (err) { /* the row may have gone meanwhile */ }
  }

  // ---- the selected router ----
  function renderDetail(fillOptions) {
    const r = state.routers.get(state.selected);
    $('detail').hidden = !r;
    $('no-selection').hidden = !!r;
    if (!r) { renderPackages(); renderSetButtons(); return; }
    text($('d-label'), r.label);
    text($('d-mac'), r.mac);
    text($('d-caption'), r.statusCode === 1 ? 'Selected ' + r.selection.length + ' package(s)' : r.detail);
    const progress = $('d-progress');
    progress.className = 'bar' + (r.statusCode === 2 ? ' done' : r.statusCode === 3 ? ' failed' : '');
    progress.setAttribute('aria-valuenow', String(r.progress));
    progress.firstElementChild.style.width = r.progress + '%';
    const c = r.controls;
    $('b-install').disabled = !c.install;
    $('b-reboot').disabled = !c.reboot;
    $('b-shutdown').disabled = !c.shutdown;
    $('b-cancel').disabled = !c.cancel;
    $('o-keepConfig').disabled = !c.keepConfig;
    $('o-address').disabled = !c.address;
    $('o-gateway').disabled = !c.address;
    $('o-baudRate').disabled = !c.baudRate;
    $('o-keepBranding').disabled = !c.keepBranding;
    $('o-defaultConfig').disabled = !c.defaultConfig;
    $('o-configureScript').disabled = !c.configureScript;
    $('o-configureScriptText').disabled = !c.configureScript;
    $('o-modeScript').disabled = !c.modeScript;
    $('o-modeScriptText').disabled = !c.modeScript;
    $('b-apply').disabled = r.statusCode !== 1;
    if (fillOptions) {
      const o = r.options;
      for (const f of OPTION_FLAGS) $('o-' + f).checked = !!o[f];
      $('o-address').value = o.address;
      $('o-gateway').value = o.gateway;
      $('o-baudRate').value = String(o.baudRate);
      $('o-after').value = o.after;
      const texts = textsOf(r);
      $('o-configureScriptText').value = texts.configureScriptText;
      $('o-modeScriptText').value = texts.modeScriptText;
    }
    renderSetButtons();
  }

  async function command(verb) {
    const mac = state.selected;
    try {
      if (verb === 'install') await applyOptions();
      const r = await api('POST', '/api/v1/routers/' + mac + '/' + verb);
      if (r && !r.removed) update(r);
      text($('options-error'), r && r.warnings ? r.warnings.join(' ') : '');
    } catch (err) { text($('options-error'), err.message); }
  }
  for (const verb of ['install', 'reboot', 'shutdown', 'cancel']) $('b-' + verb).addEventListener('click', () => command(verb));

  function optionsFromForm(r) {
    const body = {};
    const o = r.options;
    for (const f of ['keepConfig', 'keepBranding', 'defaultConfig']) if ($('o-' + f).checked !== o[f]) body[f] = $('o-' + f).checked;
    if ($('o-address').value.trim() !== o.address) body.address = $('o-address').value.trim();
    if ($('o-gateway').value.trim() !== o.gateway) body.gateway = $('o-gateway').value.trim();
    if (Number($('o-baudRate').value) !== o.baudRate) body.baudRate = Number($('o-baudRate').value);
    if ($('o-after').value !== o.after) body.after = $('o-after').value;
    for (const [flag, area, key] of [['configureScript', 'o-configureScriptText', 'configureScriptText'], ['modeScript', 'o-modeScriptText', 'modeScriptText']]) {
      const on = $('o-' + flag).checked;
      const script = $(area).value;
      if (on && script !== textsOf(r)[key]) body[flag] = script;
      else if (on !== o[flag]) body[flag] = on;
    }
    return body;
  }
  async function applyOptions() {
    const r = state.routers.get(state.selected);
    if (!r || r.statusCode !== 1) return;
    const body = optionsFromForm(r);
    if (Object.keys(body).length === 0) return;
    const updated = await api('PUT', '/api/v1/routers/' + r.mac + '/options', body);
    update(updated);
    renderDetail(true);
  }
  $('options').addEventListener('submit', async (e) => {
    e.preventDefault();
    try { await applyOptions(); text($('options-error'), ''); } catch (err) { text($('options-error'), err.message); }
  });
  // The check boxes lock one another: send each change at once, as the window does.
  for (const f of ['keepConfig', 'keepBranding', 'defaultConfig', 'configureScript', 'modeScript']) {
    $('o-' + f).addEventListener('change', async () => {
      try { await applyOptions(); text($('options-error'), ''); } catch (err) { text($('options-error'), err.message); renderDetail(true); }
    });
  }
  $('o-after').addEventListener('change', () => applyOptions().catch((err) => text($('options-error'), err.message)));
  $('o-baudRate').addEventListener('change', () => applyOptions().catch((err) => text($('options-error'), err.message)));

  // ---- packages ----
  async function loadPackages() {
    const mac = state.selected;
    if (!mac) { state.packages = null; renderPackages(); return; }
    try {
      const data = await api('GET', '/api/v1/routers/' + mac + '/packages');
      if (state.selected === mac) { state.packages = data; renderPackages(); }
    } catch (err) { text($('packages-error'), err.message); }
  }
  function renderPackages() {
    const body = $('packages').querySelector('tbody');
    body.replaceChildren();
    const r = state.routers.get(state.selected);
    const data = state.packages;
    text($('packages-caption'), data ? data.folder : '');
    if (!r || !data) return;
    const changeable = r.controls.packages;
    for (const p of data.packages) {
      const tr = document.createElement('tr');
      const box = document.createElement('input');
      box.type = 'checkbox';
      box.checked = p.checked;
      box.disabled = !changeable || !p.available;
      box.dataset.file = p.file;
      box.setAttribute('aria-label', p.name + ' ' + p.version);
      box.addEventListener('change', () => tick(p.file, box.checked));
      const first = document.createElement('td');
      first.appendChild(box);
      tr.appendChild(first);
      for (const [value, cls] of [[p.name, ''], [p.version, ''], [p.architecture, 'wide'], [p.description, 'desc']]) {
        const td = document.createElement('td');
        if (cls) td.className = cls;
        text(td, value);
        tr.appendChild(td);
      }
      body.appendChild(tr);
    }
  }
  async function tick(file, on) {
    const r = state.routers.get(state.selected);
    if (!r) return;
    const files = r.selection.filter((f) => f !== file);
    if (on) files.push(file);
    try {
      update(await api('PUT', '/api/v1/routers/' + r.mac + '/selection', { files }));
      text($('packages-error'), '');
    } catch (err) { text($('packages-error'), err.message); }
    loadPackages();
  }

  // ---- sets ----
  async function loadSets() {
    try { state.sets = await api('GET', '/api/v1/sets'); } catch (err) { return; }
    const list = $('set-list');
    const keep = list.value;
    list.replaceChildren(new Option('(none)', ''));
    for (const s of state.sets) list.appendChild(new Option(s.name, s.name));
    list.value = keep;
    renderSetButtons();
  }
  function renderSetButtons() {
    const r = state.routers.get(state.selected);
    const c = r ? r.controls : {};
    if (r && document.activeElement !== $('set-list')) $('set-list').value = r.set || '';
    $('set-list').disabled = !c.sets;
    $('b-use-set').disabled = !c.sets || !$('set-list').value;
    $('b-save-set').disabled = !c.saveSet;
    $('b-delete-set').disabled = !c.deleteSet;
    $('b-select-all').disabled = !c.selectAll;
    $('b-select-none').disabled = !c.selectNone;
  }
  $('set-list').addEventListener('change', renderSetButtons);
  $('b-use-set').addEventListener('click', async () => {
    const r = state.routers.get(state.selected);
    try { update(await api('PUT', '/api/v1/routers/' + r.mac + '/selection', { set: $('set-list').value })); loadPackages(); }
    catch (err) { text($('packages-error'), err.message); }
  });
  $('b-save-set').addEventListener('click', async () => {
    const r = state.routers.get(state.selected);
    const name = $('set-name').value.trim() || 'Router x';
    try {
      await api('PUT', '/api/v1/sets/' + encodeURIComponent(name), { folder: r.packageDir, files: r.selection });
      await api('PUT', '/api/v1/routers/' + r.mac + '/selection', { set: name }).then(update);
      await loadSets();
      text($('packages-error'), '');
    } catch (err) { text($('packages-error'), err.message); }
  });
  for (const which of ['all', 'none']) {
    $('b-select-' + which).addEventListener('click', async () => {
      const r = state.routers.get(state.selected);
      try { update(await api('PUT', '/api/v1/routers/' + r.mac + '/selection', { select: which })); loadPackages(); }
      catch (err) { text($('packages-error'), err.message); }
    });
  }
  $('b-delete-set').addEventListener('click', async () => {
    const r = state.routers.get(state.selected);
    if (!r || !r.set) return;
    try { await api('DELETE', '/api/v1/sets/' + encodeURIComponent(r.set)); await loadSets(); } catch (err) { text($('packages-error'), err.message); }
  });

  // ---- network boot ----
  async function loadNetboot() {
    let n;
    try { n = await api('GET', '/api/v1/netboot'); } catch (err) { return; }
    const facts = $('netboot-facts');
    facts.replaceChildren();
    const rows = [['Enabled', n.enabled ? 'yes' : 'no'], ['Client address', n.clientAddress || '-'],
      ['Interface', (n.interface.address || '-') + (n.interface.mac ? ' (' + n.interface.mac + ')' : '')],
      ['Boot images', n.bootImages.length ? n.bootImages.map((i) => '#' + i.number + ' ' + i.size + ' B ' + i.where).join(', ') : '-']];
    for (const [k, v] of rows) {
      const dt = document.createElement('dt'); text(dt, k);
      const dd = document.createElement('dd'); text(dd, v);
      facts.append(dt, dd);
    }
    const body = $('netboot-clients').querySelector('tbody');
    body.replaceChildren();
    for (const c of n.clients) {
      const tr = document.createElement('tr');
      for (const v of [c.mac, c.class, c.when]) { const td = document.createElement('td'); text(td, v); tr.appendChild(td); }
      body.appendChild(tr);
    }
  }

  // ---- live updates ----
  function optionsText(r) {
    const { configureScriptText, modeScriptText, ...rest } = r.options;
    return JSON.stringify(rest);
  }
  function scriptsOf(r) {
    const o = r.options;
    return [o.configureScriptFile, o.configureScriptSize, o.modeScriptFile, o.modeScriptSize].join('|');
  }
  function update(r) {
    const before = state.routers.get(r.mac);
    rememberTexts(r);
    // An event names the scripts only: when they changed, the selected
    // router's texts are read again.
    if (r.mac === state.selected && r.options.configureScriptText === undefined && before && scriptsOf(before) !== scriptsOf(r)) {
      state.texts.delete(r.mac);
      loadTexts(r.mac);
    }
    state.routers.set(r.mac, r);
    renderRouters();
    if (r.mac === state.selected) {
      const statusChanged = !before || before.statusCode !== r.statusCode;
      renderDetail(statusChanged || !before || optionsText(before) !== optionsText(r));
      if (statusChanged || !before || JSON.stringify(before.selection) !== JSON.stringify(r.selection)) loadPackages();
    }
  }
  function addLog(line) {
    state.log.push(line);
    if (state.log.length > 300) state.log.splice(0, state.log.length - 300);
    const pre = $('log');
    const atEnd = pre.scrollTop + pre.clientHeight >= pre.scrollHeight - 4;
    text(pre, state.log.join('\n'));
    if (atEnd) pre.scrollTop = pre.scrollHeight;
  }
  let source = null;
  function connect() {
    if (source) source.close();
    source = new EventSource('/api/v1/events');
    source.addEventListener('open', () => { text($('connection'), 'live'); $('connection').className = 'pill on'; });
    source.addEventListener('error', () => { text($('connection'), 'reconnecting'); $('connection').className = 'pill off'; });
    source.addEventListener('router', (e) => update(JSON.parse(e.data)));
    source.addEventListener('removed', (e) => {
      const { mac } = JSON.parse(e.data);
      state.routers.delete(mac);
      if (state.selected === mac) { state.selected = null; state.packages = null; }
      renderRouters();
      renderDetail(false);
    });
    source.addEventListener('log', (e) => addLog(JSON.parse(e.data).line));
    // Fallen behind: the present state follows at once on the same stream.
    source.addEventListener('resync', () => { state.routers.clear(); });
  }

  async function start() {
    try {
      const routers = await api('GET', '/api/v1/routers');
      for (const r of routers) state.routers.set(r.mac, r);
    } catch (err) { return; }
    renderRouters();
    renderDetail(false);
    connect();
    loadSets();
    loadNetboot();
    setInterval(loadNetboot, 5000);
  }

  api('GET', '/api/v1/session').then((s) => {
    if (s.tokenRequired && !s.authorised) showLogin(); else start();
  }).catch(() => showLogin());
})();
