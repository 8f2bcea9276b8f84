// Zoom (a range control, Ctrl + wheel about the pointer), hover highlighting
// of an owner's bars and the owner search. Zooming moves what carries a
// time (data-t, data-u: ms) and redraws the axis; nothing is fetched.
(function () {
  var box = document.getElementById('timeline');
  if (!box) return;
  var chart = box.querySelector('svg.chart'), scroll = box.querySelector('.scroll');
  var pad = +chart.dataset.pad, plot = +chart.dataset.plot, span = +chart.dataset.span;
  var right = +chart.dataset.right, k = 1, hl = document.getElementById('highlight');
  function x(t) { return pad + t * plot * k / span; }
  function pick(o) {
    hl.textContent = o == null ? '' :
      '[data-o]:not([data-o="' + o + '"]){opacity:.15}g[data-o="' + o + '"] rect{stroke:#000;stroke-width:1.5}';
  }
  var tip = document.createElement('div');
  tip.className = 'tip';
  document.body.appendChild(tip);
  document.addEventListener('mouseover', function (e) {
    var g = e.target.closest && e.target.closest('[data-o]');
    pick(g ? g.dataset.o : null);
    var t = e.target.closest && e.target.closest('[data-tip]');
    tip.textContent = t ? t.dataset.tip : '';
    tip.style.display = t ? 'block' : 'none';
  });
  document.addEventListener('mousemove', function (e) {
    tip.style.left = (e.pageX + 12) + 'px';
    tip.style.top = (e.pageY + 14) + 'px';
  });
  function step() {
    var f = [1, 2, 5], p = 1;
    for (;;) { for (var i = 0; i < 3; ++i) if (f[i] * p * plot * k / span >= 90 || p > 1e8) return f[i] * p; p *= 10; }
  }
  function axis() {
    var g = chart.querySelector('g.axis'), y2 = chart.getAttribute('height') - 8, s = step(), html = '';
    for (var t = 0; t <= span; t += s)
      html += '<line data-t="' + t + '" x1="' + x(t) + '" x2="' + x(t) + '" y1="22" y2="' + y2 +
        '" stroke="#d0d4da"/><text data-t="' + t + '" x="' + x(t) + '" y="18" text-anchor="middle" fill="#555">' + t + ' ms</text>';
    g.innerHTML = html;
  }
  function zoom(to, atClient) {
    to = Math.max(1, Math.min(128, to));
    var at = atClient == null ? scroll.clientWidth / 2 : atClient - scroll.getBoundingClientRect().left;
    var t = (scroll.scrollLeft + at - pad) * span / (plot * k);
    k = to;
    chart.setAttribute('width', pad + plot * k + right);
    var all = chart.querySelectorAll('[data-t]');
    for (var i = 0; i < all.length; ++i) {
      var e = all[i], a = x(+e.dataset.t), tag = e.tagName;
      if (tag == 'g') {
        var w = Math.max(2, x(+e.dataset.u) - a);
        for (var c = e.firstElementChild; c; c = c.nextElementSibling) {
          if (c.tagName == 'rect') { c.setAttribute('x', a); c.setAttribute('width', w); }
          else if (c.tagName == 'text') c.setAttribute('x', a);
        }
      } else if (tag == 'rect') {
        e.setAttribute('x', a); e.setAttribute('width', Math.max(1, x(+e.dataset.u) - a));
      } else if (tag == 'line') {
        e.setAttribute('x1', a); e.setAttribute('x2', a);
      } else if (tag == 'path') {
        e.setAttribute('transform', 'translate(' + a + ',' + e.dataset.y + ')');
      }
    }
    axis();
    scroll.scrollLeft = x(t) - at;
    document.getElementById('zoom').value = Math.log2(k);
  }
  document.getElementById('zoom').addEventListener('input', function (e) { zoom(Math.pow(2, +e.target.value)); });
  scroll.addEventListener('wheel', function (e) {
    if (!e.ctrlKey) return;
    e.preventDefault();
    zoom(k * (e.deltaY < 0 ? 1.25 : 0.8), e.clientX);
  }, {passive: false});
  var find = document.getElementById('find');
  if (find) find.addEventListener('input', function () {
    var q = find.value.toLowerCase(), items = document.querySelectorAll('#owners li'), only = null, n = 0;
    for (var i = 0; i < items.length; ++i) {
      var show = items[i].dataset.tip.toLowerCase().indexOf(q) >= 0;
      items[i].style.display = show ? '' : 'none';
      if (show) { ++n; only = items[i].dataset.o; }
    }
    pick(q && n == 1 ? only : null);
  });
  box.getBoundingClientRect();
  document.documentElement.dataset.shownMs = Math.round(performance.now());
})();
