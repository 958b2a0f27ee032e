// Resource ids of the host's window.
#pragma once

#define IDD_ZOR_DIALOG 16
#define IDR_MAINFRAME 128
#define IDC_STATS 1003
#define IDC_STATUS 1004
#define IDC_IRQLINE -1
