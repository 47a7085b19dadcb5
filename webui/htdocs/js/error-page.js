// The web server's own error pages hold their text in every language; one of them is shown.
const languageOf = (tag) => tag.split('-')[0];
const sections = [...document.querySelectorAll('section[lang]')];
const inLanguage = (tag) => sections.find((section) => languageOf(section.lang) === languageOf(tag));
const shown = navigator.languages.map(inLanguage).find(Boolean) ?? sections[0];

for (const section of sections) if (section !== shown) section.remove();
shown.hidden = false;
document.documentElement.lang = shown.lang;
document.title = `${shown.querySelector('h1').textContent} · Keldra`;
