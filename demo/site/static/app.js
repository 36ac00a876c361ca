'use strict';
// Harbor News page script: fills in the reader comments from the API and
// marks the page ready for whoever watches it.
(function () {
  const list = document.getElementById('comment-list');
  const format = window.harborFormat || ((text) => text);
  // The API has an origin of its own (CORS); the page names it.
  const api = document.body.dataset.api || '';
  fetch(`${api}/api/comments?article=harbor-lights`, { headers: { Accept: 'application/json' } })
    .then((res) => {
      if (!res.ok) throw new Error(`comments: HTTP ${res.status}`);
      return res.json();
    })
    .then((data) => {
      list.textContent = '';
      for (const comment of data.comments) {
        const item = document.createElement('div');
        item.className = 'comment';
        const author = document.createElement('b');
        author.textContent = comment.author;
        item.append(author, ` ${format(comment.text)}`);
        list.append(item);
      }
      document.body.dataset.comments = String(data.comments.length);
    })
    .catch((error) => {
      list.textContent = error.message;
      document.body.dataset.comments = 'failed';
    });
}());

// The site's service worker, registered once the page has loaded so that
// its precache does not compete with the page's own files.
if ('serviceWorker' in navigator) {
  window.addEventListener('load', () => {
    navigator.serviceWorker.register('/sw.js').catch((error) => console.warn(`service worker: ${error.message}`));
  });
}
