// The texts of the log-on page in every language of the console.

export const LANGUAGES = {
  en: {
    tag: 'en-US',
    texts: {
      title: 'Log on',
      purpose: 'The console of the malware protection on this server.',
      left: 'You are logged off.',
      user: 'User name',
      password: 'Password',
      enter: 'Log on',
      forgotten: 'Password forgotten? Whoever administers this server can set a new one with “keldractl passwd”.',
    },
  },
  de: {
    tag: 'de-DE',
    texts: {
      title: 'Anmelden',
      purpose: 'Die Konsole des Schutzes vor Schadsoftware auf diesem Server.',
      left: 'Sie sind abgemeldet.',
      user: 'Benutzername',
      password: 'Kennwort',
      enter: 'Anmelden',
      forgotten: 'Kennwort vergessen? Wer diesen Server verwaltet, kann mit „keldractl passwd“ ein neues setzen.',
    },
  },
  ja: {
    tag: 'ja-JP',
    texts: {
      title: 'ログオン',
      purpose: 'このサーバーのマルウェア対策コンソールです。',
      left: 'ログオフしました。',
      user: 'ユーザー名',
      password: 'パスワード',
      enter: 'ログオン',
      forgotten: 'パスワードを忘れた場合は、サーバーの管理者が「keldractl passwd」で新しいパスワードを設定できます。',
    },
  },
};
