document.addEventListener('DOMContentLoaded', () => {
  document.querySelector('h1').textContent += ' (loaded)';
});
