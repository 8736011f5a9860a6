startTestPage('popup');
