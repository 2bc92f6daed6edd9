// Parlova's one script: the search as the user types, and a chat that
// loads more of itself as the reader scrolls. Every piece of HTML it puts
// in place comes from this server, which escaped what the chats hold.
'use strict';

(function () {
  const form = document.getElementById('search');

  // Search as you type, on the search page; elsewhere the box searches on Enter.
  function searchAsTyped() {
    if (!form || !document.getElementById('results')) return;
    let timer = 0;
    let asked = 0;
    const run = () => {
      const params = new URLSearchParams(new FormData(form));
      for (const [name, value] of [...params]) if (value === '') params.delete(name);
      if (params.get('sort') === 'rank') params.delete('sort');
      const address = '/search?' + params.toString();
      params.set('format', 'part');
      const ticket = ++asked;
      fetch('/search?' + params.toString(), { credentials: 'same-origin' })
        .then((answer) => answer.text())
        .then((html) => {
          if (ticket !== asked) return;
          const results = document.getElementById('results');
          if (!results) return;
          const holder = document.createElement('div');
          holder.innerHTML = html;
          const fresh = holder.querySelector('#results');
          if (fresh) results.replaceWith(fresh);
          history.replaceState(null, '', address);
          const query = params.get('q') || '';
          document.title = (query || 'Search') + ' \u2014 Parlova';
        })
        .catch(() => {});
    };
    const soon = () => {
      window.clearTimeout(timer);
      timer = window.setTimeout(run, 150);
    };
    form.addEventListener('input', soon);
    form.addEventListener('change', soon);
  }

  // A chat: the message asked for in view, and more as the reader nears an edge.
  function chatThatGrows() {
    const messages = document.querySelector('.messages');
    if (!messages) return;
    const hit = messages.querySelector('.m.hit');
    // The browser goes to the message's anchor once the page has loaded,
    // to the top of the window: then it is put in the middle, unless the
    // reader has gone somewhere else meanwhile.
    const centre = () => {
      if (hit) hit.scrollIntoView({ block: 'center' });
    };
    let readerMoved = false;
    for (const kind of ['wheel', 'keydown', 'touchstart', 'mousedown'])
      window.addEventListener(kind, () => { readerMoved = true; }, { once: true, passive: true });
    centre();
    window.addEventListener('load', () => window.requestAnimationFrame(() => {
      if (!readerMoved) centre();
    }));
    const sameDayTwice = () => {
      let last = '';
      for (const heading of messages.querySelectorAll('h2.day')) {
        if (heading.textContent === last) heading.remove();
        else last = heading.textContent;
      }
    };
    const observer = new IntersectionObserver((entries) => {
      for (const entry of entries) if (entry.isIntersecting) load(entry.target);
    }, { rootMargin: '800px 0px' });
    const load = (edge) => {
      observer.unobserve(edge);
      const from = edge.dataset.from || '';
      if (!from.startsWith('/chat/')) return;
      const before = from.includes('?before=');
      fetch(from, { credentials: 'same-origin' })
        .then((answer) => (answer.ok ? answer.text() : Promise.reject(new Error(String(answer.status)))))
        .then((html) => {
          const holder = document.createElement('div');
          holder.innerHTML = html;
          const height = document.documentElement.scrollHeight;
          const top = window.scrollY;
          const added = [...holder.children];
          for (const node of added) messages.insertBefore(node, edge);
          edge.remove();
          if (before) window.scrollTo(0, top + document.documentElement.scrollHeight - height);
          sameDayTwice();
          for (const node of added) if (node.classList.contains('more')) observer.observe(node);
        })
        .catch(() => {
          edge.textContent = 'More of this chat could not be loaded.';
        });
    };
    for (const edge of messages.querySelectorAll('.more')) observer.observe(edge);
  }

  searchAsTyped();
  chatThatGrows();
})();
